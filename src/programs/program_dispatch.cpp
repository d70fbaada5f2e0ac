#include "programs/program_dispatch.h"

#include "foundation/log.h"
#include "platform/lookup_scope.h"
#include "programs/busy_scope.h"

namespace {

/// xid and reply header.
constexpr std::size_t HeaderSize = 24;

}  // namespace

const SProcedure* OpenCall(const SProgram& program, bool isClientAllowed, CXDRReader& reader, CXDRWriter& writer) {
  RpcCallHeader header;
  ReadCallHeader(reader, header);
  const bool isKnown = header.procedure < program.procedures.size();
  writer.Reserve(HeaderSize + (isKnown ? program.procedures[header.procedure].replySize : 0));
  writer.UInt(header.xid);
  if (!CheckCallHeader(header, program.program, program.version)) {
    writer.UnavailableReply();
    return nullptr;
  }
  if (!isClientAllowed && header.procedure != 0) {
    writer.AccessDeniedReply();
    return nullptr;
  }
  if (!isKnown) {
    g_nfs_log.Warning(program.notFoundLine, header.procedure);
    writer.UnavailableReply();
    return nullptr;
  }

  const SProcedure& procedure = program.procedures[header.procedure];
  if (procedure.traceLine != nullptr)
    g_nfs_log.Verbose(procedure.traceLine);
  switch (procedure.answer) {
    case procedure_answer_t::Unavailable:
      writer.UnavailableReply();
      return nullptr;
    case procedure_answer_t::PlainSuccess:
      writer.AcceptedReply();
      return nullptr;
    case procedure_answer_t::Procedure:
      break;
  }
  return &procedure;
}

void DispatchCall(const SProgram& program, bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader,
                  CXDRWriter& writer, CVirtualFs& fs) {
  const CBusyScope busy;
  const platform::lookup_scope_t scope;
  const SProcedure* const procedure = OpenCall(program, isClientAllowed, reader, writer);
  if (procedure == nullptr)
    return;
  SProcedureCall call{peer, reader, writer, fs};
  procedure->handler(call);
}
