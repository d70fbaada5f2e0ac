#include "transports/sync/xdr_session_writer.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/sockets/close_tcp_connection.h"

CXdrSendWaitSet::CXdrSendWaitSet(boost::shared_ptr<synch::manual_event_t> queueEvent,
                                 boost::shared_ptr<synch::manual_event_t> stop)
    : queueEvent_(std::move(queueEvent)), stopEvent_(std::move(stop)), handles_{queueEvent_.get(), stopEvent_.get()} {}

bool CXdrSendWaitSet::Wait(std::uint32_t limitMs) const noexcept {
  return synch::waitable_t::WaitAny(handles_, limitMs).has_value();
}

CXdrSessionWriter::CXdrSessionWriter(boost::shared_ptr<CSocketIP> socket, boost::shared_ptr<xdr_writer_queue_t> queue,
                                     boost::shared_ptr<CXdrBacklog> backlog,
                                     boost::shared_ptr<CXdrSessionStopCtx> stopCtx)
    : socket_(std::move(socket)),
      queue_(std::move(queue)),
      backlog_(std::move(backlog)),
      stopCtx_(std::move(stopCtx)),
      device_(boost::make_shared<CSocketIPDev>(socket_)),
      batch_(socket_),
      waitSet_(queue_->SharedEvent(), stopCtx_->Event()) {
  socket_->SetBeforeSendWait([this] { OnSendWait(); });
  try {
    thread_ =
        boost::make_shared<synch::thread_t>("TCP XDR Writer", synch::thread_exec_proc_t([this] { XdrSendThread(); }));
  } catch (const std::exception& failure) {
    // The words of the reader's: whoever looks for the one finds both.
    g_nfs_log.Error("Failed to initialize XDR reader.", failure);
    throw;
  }
}

CXdrSessionWriter::~CXdrSessionWriter() {
  try {
    if (thread_->WaitFor(0))
      return;
    g_nfs_log.Info("Stopping XdrWriter thread.");
    stopCtx_->ForceStop();
    // It may be waiting for the peer to take what is being sent.
    socket_->Abort();
    thread_->WaitOrThrow(synch::LongWaitMs);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to destroy XdrSendThread", failure);
  }
}

void CXdrSessionWriter::XdrSendThread() noexcept {
  try {
    SendReplies();
  } catch (const CCloseTCPConnection&) {
    g_nfs_log.Info("TCP socket was closed, XdrSendThread stopped.");
    stopCtx_->ReportClosed();
  } catch (const std::exception& failure) {
    g_nfs_log.Error("XdrSendThread error", failure);
    stopCtx_->ReportError(failure);
  }
  g_nfs_log.Info("XdrSendThread finished.");
}

void CXdrSessionWriter::SendReplies() {
  while (!stopCtx_->IsStopped()) {
    WaitForReplies();
    if (stopCtx_->IsStopped()) {
      stopCtx_->Rethrow();
      throw exc::runtime_exc_t("Cannot extract request from the NFS input queue because stop signal is switched on.");
    }
    queue_->TakeAll(replies_);
    bool isLast = false;
    while (!replies_.empty() && !isLast)
      isLast = SendAll();
    isStalled_.store(false, std::memory_order_relaxed);
    if (isLast)
      stopCtx_->ReportClosed();
  }
}

void CXdrSessionWriter::WaitForReplies() {
  while (!waitSet_.Wait(synch::LongWaitMs))
    g_nfs_log.Warning("Timed out to wait for the next NFS request");
}

bool CXdrSessionWriter::SendAll() {
  const auto takeFirst = [this] {
    boost::shared_ptr<CXDRWriter> first = std::move(replies_.front());
    replies_.pop_front();
    return first;
  };
  const std::size_t marks = replies_.back() == nullptr ? 1 : 0;
  if (replies_.size() == 1 + marks && !replies_.front()->HasPipes()) {
    SendAlone(*takeFirst());
    return false;
  }
  while (!replies_.empty()) {
    const boost::shared_ptr<CXDRWriter> reply = takeFirst();
    if (reply == nullptr) {
      batch_.Flush();
      return true;
    }
    const std::size_t size = reply->Used();
    batch_.Add(*reply);
    backlog_->Remove(size);
  }
  batch_.Flush();
  return false;
}

bool CXdrSessionWriter::TakesPipes() const noexcept {
  return !isStalled_.load(std::memory_order_relaxed) || !platform::kernel_pipe_t::AreScarce();
}

void CXdrSessionWriter::OnSendWait() {
  isStalled_.store(true, std::memory_order_relaxed);
  if (!platform::kernel_pipe_t::AreScarce())
    return;
  batch_.EmptyPipes();
  queue_->TakeAll(replies_);
  for (const boost::shared_ptr<CXDRWriter>& reply : replies_) {
    if (reply != nullptr)
      reply->EmptyPipes();
  }
}

/// The mark and the beginning of the reply share a segment.
void CXdrSessionWriter::SendAlone(const CXDRWriter& reply) {
  io::net::CFastSocketIoDev device(device_);
  reply.Send(device, true);
  // Here and not in the device's destructor, which could not tell a failure.
  device.Flush();
  backlog_->Remove(reply.Used());
}
