#include "rpc/rpc_message.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstddef>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "rpc/xdr_completion_queue.h"

namespace {

constexpr std::uint32_t RpcVersion = 2;
constexpr std::uint32_t LastFragmentBit = 0x80000000U;

/// A credential or a verifier: a flavour and its body, both of no interest.
void SkipAuthentication(CXDRReader& reader) {
  reader.UInt();
  reader.VarLenView();
}

/// reject_stat.
[[noreturn]] void ThrowDenied(CXDRReader& reader) {
  const std::uint32_t status = reader.UInt();
  if (status == 0) {
    const std::uint32_t low = reader.UInt();
    const std::uint32_t high = reader.UInt();
    throw exc::runtime_exc_t("NFS RCP mismatch. Low: %1, High: %2", low, high);
  }
  if (status == 1)
    throw exc::runtime_exc_t("Authentication error: %1", reader.UInt());
  throw exc::runtime_exc_t("Unknown reject status: %1", status);
}

/// Leaves the reader at the result of an accepted success.
void CheckReply(CXDRReader& reader) {
  reader.UInt();  // The xid: one call is under way on the stream, so it is not compared.
  reader.UInt();  // The message type.
  const std::uint32_t replyStatus = reader.UInt();
  if (replyStatus == 1)
    ThrowDenied(reader);
  if (replyStatus != 0)
    throw exc::runtime_exc_t("Unknown NFS reply state: %1", replyStatus);

  SkipAuthentication(reader);
  const std::uint32_t acceptStatus = reader.UInt();
  if (acceptStatus == 0)
    return;
  if (acceptStatus == 2) {
    const std::uint32_t low = reader.UInt();
    const std::uint32_t high = reader.UInt();
    throw exc::runtime_exc_t("NFS program mismatch. Low: %1, High: %2", low, high);
  }
  throw exc::runtime_exc_t("Unknown accept status: %1", acceptStatus);
}

/// Receives a record of an announced length; memory grows with what arrives.
boost::shared_ptr<io::byte_buffer_t> RecvRecord(IRpcClientStream& stream, std::size_t length,
                                                std::uint32_t receiveTimeoutSec) {
  constexpr std::size_t step = 64 * 1024;
  auto record = boost::make_shared<io::byte_buffer_t>();
  while (record->size() < length) {
    const std::size_t done = record->size();
    const std::size_t part = std::min(step, length - done);
    record->resize(done + part);
    stream.Recv(record->data() + done, part, receiveTimeoutSec);
  }
  return record;
}

}  // namespace

void IXdrRpcInterface::ProcessAsyncCall(bool isClientAllowed, const sockaddr_in& peer,
                                        const boost::shared_ptr<CXDRReader>& reader,
                                        const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs) {
  const auto writer = boost::make_shared<CXDRWriter>();
  ProcessCall(isClientAllowed, peer, *reader, *writer, fs);
  completionQueue->PostFinished(writer);
}

void IXdrRpcInterface::ProcessAsyncCalls(bool isClientAllowed, const sockaddr_in& peer, const xdr_calls_t& readers,
                                         const boost::shared_ptr<CXDRCompletionQueue>& completionQueue,
                                         CVirtualFs& fs) {
  for (const boost::shared_ptr<CXDRReader>& reader : readers)
    ProcessAsyncCall(isClientAllowed, peer, reader, completionQueue, fs);
}

void ReadCallHeader(CXDRReader& reader, RpcCallHeader& header) {
  header.xid = reader.UInt();
  header.messageType = reader.UInt();
  header.rpcVersion = reader.UInt();
  header.program = reader.UInt();
  header.programVersion = reader.UInt();
  header.procedure = reader.UInt();
  SkipAuthentication(reader);
  SkipAuthentication(reader);
}

bool CheckCallHeader(const RpcCallHeader& header, std::uint32_t program, std::uint32_t version) {
  if (header.program != program) {
    g_nfs_log.Warning("ERROR: Program [%1] not found.", header.program);
    return false;
  }
  if (header.programVersion != version) {
    g_nfs_log.Warning("ERROR: Wrong program version [%1].", header.programVersion);
    return false;
  }
  if (header.rpcVersion != RpcVersion) {
    g_nfs_log.Warning("ERROR: Wrong RPC version [%1].", header.rpcVersion);
    return false;
  }
  return true;
}

void CallForeignPortmap(IRpcClientStream& stream, const CXDRWriter& request, CXDRReader& reader,
                        std::uint32_t receiveTimeoutSec) {
  io::byte_buffer_t call;
  request.Finish(call, true);
  stream.Send(call.data(), call.size());

  CXDRReader markReader(std::size_t{4});
  stream.Recv(markReader.Record().data(), markReader.Record().size(), receiveTimeoutSec);
  const std::uint32_t mark = markReader.UInt();
  if ((mark & LastFragmentBit) == 0)
    throw exc::runtime_exc_t("Partial packet not implemented.");

  reader = CXDRReader(RecvRecord(stream, mark & ~LastFragmentBit, receiveTimeoutSec));
  CheckReply(reader);
}
