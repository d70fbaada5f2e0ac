#include "transports/sync/xdr_session_reader.h"

#include <arpa/inet.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstring>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "rpc/record_buffer.h"
#include "transports/sockets/close_tcp_connection.h"

namespace {

constexpr std::uint32_t LastFragmentBit = 0x80000000U;

}  // namespace

CXdrSessionReader::CXdrSessionReader(boost::shared_ptr<CSocketIP> socket, boost::shared_ptr<xdr_reader_queue_t> queue,
                                     boost::shared_ptr<CXdrBacklog> backlog,
                                     boost::shared_ptr<CXdrSessionStopCtx> stopCtx)
    : socket_(std::move(socket)), queue_(std::move(queue)), backlog_(std::move(backlog)), stopCtx_(std::move(stopCtx)) {
  try {
    thread_ = boost::make_shared<synch::thread_t>("TCP XDR Reader",
                                                  synch::thread_exec_proc_t([this] { XdrReceiveThread(); }));
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to initialize XDR reader.", failure);
    throw;
  }
}

CXdrSessionReader::~CXdrSessionReader() {
  try {
    if (thread_->WaitFor(0))
      return;
    if (!stopCtx_->IsStopped()) {
      g_nfs_log.Warning("Forcing XDR reader thread to stop.");
      stopCtx_->ForceStop();
    }
    // It may be waiting for the peer, who need not send anything any more.
    socket_->Abort();
    thread_->WaitOrThrow(synch::LongWaitMs);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Unable to stop XDR reader thread.", failure);
  }
}

void CXdrSessionReader::XdrReceiveThread() noexcept {
  try {
    ReceiveRecords();
  } catch (const std::exception& failure) {
    g_nfs_log.Error("XdrReceiveThread error", failure);
    stopCtx_->ReportError(failure);
  }
  g_nfs_log.Info("XdrReceiveThread finished.");
}

void CXdrSessionReader::ReceiveRecords() {
  try {
    while (!stopCtx_->IsStopped() && WaitForRoom()) {
      auto record = ReceiveRecord();
      backlog_->Add(record->Record().size());
      queue_->Push(std::move(record));
    }
  } catch (const CCloseTCPConnection&) {
    g_nfs_log.Info("TCP socket was closed, XdrReceiveThread stopped.");
    // The session reports itself as closed once it has answered what came before.
    queue_->Push(nullptr);
  }
}

/// False when the session ends.
bool CXdrSessionReader::WaitForRoom() {
  if (backlog_->HasRoom())
    return true;
  synch::waitable_t::WaitAny({stopCtx_->Event().get(), &backlog_->RoomEvent()});
  return !stopCtx_->IsStopped();
}

boost::shared_ptr<CXDRReader> CXdrSessionReader::ReceiveRecord() {
  std::uint32_t mark = 0;
  Receive(reinterpret_cast<std::uint8_t*>(&mark), sizeof(mark));
  mark = ntohl(mark);
  if ((mark & LastFragmentBit) == 0)
    throw exc::runtime_exc_t("Partial packet not implemented.");
  const std::size_t size = mark & ~LastFragmentBit;
  readAhead_ = size <= StagingSize;
  const auto body = boost::make_shared<CRecordBuffer>();
  for (std::size_t done = 0; done < size; done = body->size()) {
    if (!body->GrowTo(std::min(size, std::max(done * 2, CRecordBuffer::FirstSize))))
      throw exc::runtime_exc_t("Large records take too much memory.");
    Receive(body->data() + done, body->size() - done);
  }
  return boost::make_shared<CXDRReader>(body);
}

/// Small records arrive many at a time: one receive takes what is there. Behind a large one, which another one is
/// likely to follow, nothing is read ahead that would have to be copied.
void CXdrSessionReader::Receive(std::uint8_t* target, std::size_t length) {
  for (;;) {
    const std::size_t part = std::min(length, stagingEnd_ - stagingBegin_);
    if (part != 0)
      std::memcpy(target, staging_.data() + stagingBegin_, part);
    stagingBegin_ += part;
    target += part;
    length -= part;
    if (length == 0)
      return;
    if (!readAhead_ || length >= StagingSize) {
      socket_->Recv(target, length, 0);
      return;
    }
    staging_.resize(StagingSize);
    stagingBegin_ = 0;
    stagingEnd_ = 0;
    stagingEnd_ = socket_->RecvSome(staging_.data(), StagingSize);
  }
}
