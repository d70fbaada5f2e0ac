#include "programs/portmap_rpc_interface.h"

#include <list>

#include "foundation/log.h"
#include "programs/ep_mapper_table.h"
#include "programs/program_dispatch.h"

namespace {

PortmapRecord DecodeRecord(CXDRReader& reader) {
  PortmapRecord record;
  record.Decode(reader);
  return record;
}

void AnswerWord(SProcedureCall& call, std::uint32_t word) {
  call.writer.AcceptedReply();
  call.writer.UInt(word);
}

void Set(SProcedureCall& call) {
  const PortmapRecord record = DecodeRecord(call.reader);
  g_nfs_log.Info("[EpMapper] Registering program: [%1]. Version: [%2], Protocol: [%3], Port: [%4]", record.program,
                 record.version, record.protocol, record.port);
  const bool inserted = CEpMapperTable::Instance().Insert(record);
  if (!inserted)
    g_nfs_log.Warning("[EpMapper] Failed to register program.");
  AnswerWord(call, inserted ? 1 : 0);
}

void Unset(SProcedureCall& call) {
  const bool removed = CEpMapperTable::Instance().Remove(DecodeRecord(call.reader));
  g_nfs_log.Info(removed ? "Program removed." : "Cannot remove program.");
  AnswerWord(call, removed ? 1 : 0);
}

void GetPort(SProcedureCall& call) {
  const PortmapRecord record = DecodeRecord(call.reader);
  g_nfs_log.Verbose("=== PMAPPROC_GETPORT ========= : prog: %1, vers: %2, prot: %3, port: %4", record.program,
                    record.version, record.protocol, record.port);
  const std::uint32_t port = CEpMapperTable::Instance().Lookup(record);
  g_nfs_log.Info("Return port number: [%1].", port);
  AnswerWord(call, port);
}

void Dump(SProcedureCall& call) {
  constexpr std::size_t rowSize = 20;
  const std::list<PortmapRecord> rows = CEpMapperTable::Instance().Dump();
  call.writer.Reserve(rows.size() * rowSize + 24);
  call.writer.AcceptedReply();
  for (const PortmapRecord& row : rows) {
    call.writer.UInt(1);
    row.Encode(call.writer);
  }
  call.writer.UInt(0);
}

constexpr SProcedure Procedures[] = {
    PlainRow(0, "NULL", "=== PMAPPROC_NULL ============ :"),
    ServedRow(1, "SET", "=== PMAPPROC_SET ============= :", 4, Set),
    ServedRow(2, "UNSET", "=== PMAPPROC_UNSET =========== :", 4, Unset),
    ServedRow(3, "GETPORT", nullptr, 4, GetPort),
    ServedRow(4, "DUMP", "=== PMAPPROC_DUMP ============ :", 0, Dump),
    UnavailableRow(5, "CALLIT", "=== PMAPPROC_CALLIT =======UN= :"),
};
constexpr std::uint32_t HighestProcedure = 5;
static_assert(IsTableSound(Procedures, HighestProcedure));

constexpr SProgram PortmapProgram = {CPortmapRpcInterface::Program, CPortmapRpcInterface::Version, Procedures,
                                     "Procedure not found: [%1]."};

}  // namespace

void DispatchPortmapCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                         CVirtualFs& fs) {
  DispatchCall(PortmapProgram, isClientAllowed, peer, reader, writer, fs);
}

void CPortmapRpcInterface::ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader,
                                       CXDRWriter& writer, CVirtualFs& fs) {
  DispatchPortmapCall(isClientAllowed, peer, reader, writer, fs);
}
