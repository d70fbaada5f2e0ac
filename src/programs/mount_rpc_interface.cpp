#include "programs/mount_rpc_interface.h"

#include <exception>
#include <string>

#include "foundation/log.h"
#include "programs/program_dispatch.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "vfs/virtual_fs/virtual_fs.h"

void CMountResult::Decode(CXDRReader& reader) {
  status = reader.UInt();
  if (status != MNT3_OK)
    return;
  handle.Decode(reader);
  for (std::uint32_t flavours = reader.UInt(); flavours != 0; --flavours)
    reader.UInt();
}

void CMountResult::Encode(CXDRWriter& writer) const {
  writer.UInt(status);
  if (status != MNT3_OK)
    return;
  handle.Encode(writer);
  writer.UInt(0);
}

namespace {

/// Whatever keeps a path from being resolved, the client is told that there is no such share.
void Mnt(SProcedureCall& call) {
  const std::string path = call.reader.String();
  CMountResult result;
  try {
    result.handle = call.fs.GetShareHandle(path);
    g_nfs_log.Verbose("=== MOUNTPROC3_MNT ========OK= : path: [%1]", path);
  } catch (const std::exception&) {
    result.status = MNT3ERR_NOENT;
    g_nfs_log.Verbose("=== MOUNTPROC3_MNT ====NOTENT= : path: [%1]", path);
  }
  call.writer.AcceptedReply();
  result.Encode(call.writer);
}

/// Shares are not told to those who do not know them: the list is empty. A service that is stopping does not answer.
void Export(SProcedureCall& call) {
  CSvcContextHolder::Get()->GetFs();
  call.writer.AcceptedReply();
  call.writer.UInt(0);
}

constexpr std::size_t MountResultSize = 4 + 4 + 24 + 4;

constexpr SProcedure Procedures[] = {
    PlainRow(0, "NULL", "=== MOUNTPROC3_NULL ========== :"),
    ServedRow(1, "MNT", nullptr, MountResultSize, Mnt),
    UnavailableRow(2, "DUMP", "=== MOUNTPROC3_DUMP =======UN= :"),
    PlainRow(3, "UMNT", "=== MOUNTPROC3_UMNT ========== :"),
    PlainRow(4, "UMNTALL", "=== MOUNTPROC3_UMNTALL ======= :"),
    ServedRow(5, "EXPORT", "=== MOUNTPROC3_EXPORT ======== :", 4, Export),
};
constexpr std::uint32_t HighestProcedure = 5;
static_assert(IsTableSound(Procedures, HighestProcedure));

constexpr SProgram MountProgram = {CMountRpcInterface::Program, CMountRpcInterface::Version, Procedures,
                                   "Procedure not found."};

}  // namespace

void DispatchMountCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                       CVirtualFs& fs) {
  DispatchCall(MountProgram, isClientAllowed, peer, reader, writer, fs);
}

void CMountRpcInterface::ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader,
                                     CXDRWriter& writer, CVirtualFs& fs) {
  DispatchMountCall(isClientAllowed, peer, reader, writer, fs);
}
