#include "programs/nfs_rpc_interface.h"

#include <array>
#include <boost/make_shared.hpp>

#include "programs/io_trace.h"
#include "programs/nfs_async_transfer.h"
#include "programs/nfs_read_result.h"
#include "programs/program_dispatch.h"
#include "rpc/xdr_completion_queue.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

void Answer(SProcedureCall& call, const auto& result) {
  call.writer.AcceptedReply();
  result.Encode(call.writer);
}

/// The procedure of an operation that takes the arguments and the client.
template <typename Args, typename Result,
          void (CVirtualFs::*Operation)(const Args&, const sockaddr_in&, Result&) noexcept>
void Run(SProcedureCall& call) {
  Args args;
  args.Decode(call.reader);
  Result result;
  (call.fs.*Operation)(args, call.peer, result);
  Answer(call, result);
}

/// The procedure of an operation on a file system as a whole.
template <typename Args, typename Result, void (CVirtualFs::*Operation)(const nfs_fh3&, Result&) noexcept>
void RunOnRoot(SProcedureCall& call) {
  Args args;
  args.Decode(call.reader);
  Result result;
  (call.fs.*Operation)(args.fsRoot, result);
  Answer(call, result);
}

void Read(SProcedureCall& call) {
  READ3args args;
  args.Decode(call.reader);
  io_trace::Begin(perf::event::ReadBegin, args.file, args.offset, args.count);
  const auto buffer = boost::make_shared<SFsReadBuffer>();
  LendPipe(*buffer, call.writer, args.count);
  READ3res result;
  result.status = call.fs.Read(args.file, args.offset, args.count, *buffer);
  if (result.status == NFS3_OK)
    SetReadResult(result, buffer);
  Answer(call, result);
  io_trace::End(perf::event::ReadEnd, args.file, args.offset, result.status == NFS3_OK);
}

/// The data is written from where it was received.
void Write(SProcedureCall& call) {
  WRITE3args args;
  args.Decode(call.reader);
  io_trace::Begin(perf::event::WriteBegin, args.file, args.offset, args.count);
  WRITE3res result;
  call.fs.Write(args, result);
  Answer(call, result);
  io_trace::End(perf::event::WriteEnd, args.file, args.offset, result.status == NFS3_OK);
}

constexpr auto GetAttrs = Run<GETATTR3args, GETATTR3res, &CVirtualFs::GetAttrs>;
constexpr auto SetAttrs = Run<SETATTR3args, SETATTR3res, &CVirtualFs::SetAttrs>;
constexpr auto Lookup = Run<LOOKUP3args, LOOKUP3res, &CVirtualFs::Lookup>;
constexpr auto Access = Run<ACCESS3args, ACCESS3res, &CVirtualFs::Access>;
constexpr auto CreateFile = Run<CREATE3args, CREATE3res, &CVirtualFs::CreateFile>;
constexpr auto CreateDir = Run<MKDIR3args, MKDIR3res, &CVirtualFs::CreateDir>;
constexpr auto Remove = Run<REMOVE3args, REMOVE3res, &CVirtualFs::Remove>;
constexpr auto RemoveDir = Run<RMDIR3args, RMDIR3res, &CVirtualFs::RemoveDir>;
constexpr auto Rename = Run<RENAME3args, RENAME3res, &CVirtualFs::Rename>;
constexpr auto ReadDirPlus = Run<READDIRPLUS3args, READDIRPLUS3res, &CVirtualFs::ReadDirPlus>;
constexpr auto FsStat = RunOnRoot<FSSTAT3args, FSSTAT3res, &CVirtualFs::FsStat>;
constexpr auto FsInfo = RunOnRoot<FSINFO3args, FSINFO3res, &CVirtualFs::FsInfo>;

// What the results take on the wire.
constexpr std::size_t StatusSize = 4;
constexpr std::size_t FattrSize = 84;
constexpr std::size_t PostOpAttrSize = 4 + FattrSize;
constexpr std::size_t HandleSize = 4 + 24;
constexpr std::size_t WccDataSize = 4 + 24 + PostOpAttrSize;
constexpr std::size_t ReadHeaderSize = StatusSize + 4 + 3 * 4 + 3;
constexpr std::size_t WriteResultSize = StatusSize + 8 + 8 + 8;
constexpr std::size_t NewItemSize = StatusSize + 4 + HandleSize + PostOpAttrSize + WccDataSize;
constexpr std::size_t ListingSize = 1024;
constexpr std::size_t FsStatSize = StatusSize + PostOpAttrSize + 6 * 8 + 4;
constexpr std::size_t FsInfoSize = StatusSize + 4 + 7 * 4 + 8 + 8 + 4;

constexpr std::uint32_t LookupProcedure = 3;
constexpr std::uint32_t ReadProcedure = 6;
constexpr std::uint32_t WriteProcedure = 7;

constexpr SProcedure Procedures[] = {
    PlainRow(0, "NULL", "=== NFSPROC3_NULL ============= :"),
    ServedRow(1, "GETATTR", "=== NFSPROC3_GETATTR ========== :", StatusSize + FattrSize, GetAttrs),
    ServedRow(2, "SETATTR", "=== NFSPROC3_SETATTR ========== :", StatusSize + WccDataSize, SetAttrs),
    ServedRow(LookupProcedure, "LOOKUP",
              "=== NFSPROC3_LOOKUP =========== :", StatusSize + HandleSize + 2 * PostOpAttrSize, Lookup),
    ServedRow(4, "ACCESS", "=== NFSPROC3_ACCESS ========== :", StatusSize + PostOpAttrSize + 4, Access),
    UnavailableRow(5, "READLINK", "=== NFSPROC3_READLINK ======UN= :"),
    ServedRow(ReadProcedure, "READ", nullptr, ReadHeaderSize, Read),
    ServedRow(WriteProcedure, "WRITE", nullptr, WriteResultSize, Write),
    ServedRow(8, "CREATE", "=== NFSPROC3_CREATE ========== :", NewItemSize, CreateFile),
    ServedRow(9, "MKDIR", "=== NFSPROC3_MKDIR ============ :", NewItemSize, CreateDir),
    UnavailableRow(10, "SYMLINK", "=== NFSPROC3_SYMLINK =======UN= :"),
    UnavailableRow(11, "MKNOD", "=== NFSPROC3_MKNOD ========UN= :"),
    ServedRow(12, "REMOVE", "=== NFSPROC3_REMOVE =========== :", StatusSize + 8, Remove),
    ServedRow(13, "RMDIR", "=== NFSPROC3_RMDIR ============ :", StatusSize + 8, RemoveDir),
    ServedRow(14, "RENAME", "=== NFSPROC3_RENAME =========== :", StatusSize + 16, Rename),
    UnavailableRow(15, "LINK", "=== NFSPROC3_LINK =========UN= :"),
    UnavailableRow(16, "READDIR", "=== NFSPROC3_READDIR ======UN= :"),
    ServedRow(17, "READDIRPLUS", "=== NFSPROC3_READDIRPLUS ====== :", ListingSize, ReadDirPlus),
    ServedRow(18, "FSSTAT", "=== NFSPROC3_FSSTAT ========== :", FsStatSize, FsStat),
    ServedRow(19, "FSINFO", "=== NFSPROC3_FSINFO ========== :", FsInfoSize, FsInfo),
    UnavailableRow(20, "PATHCONF", "=== NFSPROC3_PATHCONF =====UN= :"),
    UnavailableRow(21, "COMMIT", "=== NFSPROC3_COMMIT =======UN= :"),
};
constexpr std::uint32_t HighestProcedure = 21;
static_assert(IsTableSound(Procedures, HighestProcedure));

constexpr SProgram NfsProgram = {CNfsRpcInterface::Program, CNfsRpcInterface::Version, Procedures,
                                 "Procedure not found: [%1]."};

}  // namespace

void DispatchNfsCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                     CVirtualFs& fs) {
  DispatchCall(NfsProgram, isClientAllowed, peer, reader, writer, fs);
}

std::size_t PlacesOfLookups(std::span<io::byte_buffer_t* const> records, std::span<SListingPlace> places) {
  std::size_t count = 0;
  for (io::byte_buffer_t* const record : records) {
    if (count == places.size())
      break;
    // A pointer without a count, for less time than the record's owner has it.
    CXDRReader reader(boost::shared_ptr<io::byte_buffer_t>(boost::shared_ptr<void>(), record));
    RpcCallHeader header;
    ReadCallHeader(reader, header);
    if (header.program != CNfsRpcInterface::Program || header.procedure != LookupProcedure)
      continue;
    nfs_fh3 dir;
    dir.Decode(reader);
    const std::span<const std::uint8_t> name = reader.VarLenView();
    places[count++] = {FidFromHandle(dir), {reinterpret_cast<const char*>(name.data()), name.size()}};
  }
  return count;
}

void ForeseeNfsCalls(std::span<io::byte_buffer_t* const> records, const CVirtualFs& fs) {
  const CFsItemsTab& tab = *fs.ItemsTab();
  if (!tab.IsLarge())
    return;
  std::array<SListingPlace, CFsItemsTab::MostForeseen> places;
  if (const std::size_t count = PlacesOfLookups(records, places); count != 0)
    tab.Foresee(std::span(places).first(count));
}

void CNfsRpcInterface::ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader,
                                   CXDRWriter& writer, CVirtualFs& fs) {
  DispatchNfsCall(isClientAllowed, peer, reader, writer, fs);
}

void CNfsRpcInterface::ProcessAsyncCall(bool isClientAllowed, const sockaddr_in& peer,
                                        const boost::shared_ptr<CXDRReader>& reader,
                                        const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs) {
  const auto writer = boost::make_shared<CXDRWriter>();
  if (completionQueue->TakesPipes())
    writer->TakePipes();
  const SProcedure* const procedure = OpenCall(NfsProgram, isClientAllowed, *reader, *writer);
  if (procedure != nullptr) {
    const SAsyncProcedureCall asyncCall{reader, writer, *completionQueue, fs};
    switch (procedure->number) {
      case ReadProcedure:
        return BeginNfsRead(asyncCall);
      case WriteProcedure:
        return BeginNfsWrite(asyncCall);
      default:
        SProcedureCall call{peer, *reader, *writer, fs};
        procedure->handler(call);
    }
  }
  completionQueue->PostFinished(writer);
}
