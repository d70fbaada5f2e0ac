#include "transports/sync/client_session.h"

#include <sys/socket.h>

#include <array>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "config/address_checker.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/error.h"
#include "transports/sockets/close_tcp_connection.h"

namespace {

constexpr int ReceiveBufferSize = 0x80000;
constexpr int SendBufferSize = 0x100000;

platform::error_t SocketError() noexcept {
  return platform::SocketErrorFromErrno(errno);
}

bool ReadBufferSize(int socket, int option, int& size) noexcept {
  socklen_t length = sizeof(size);
  return ::getsockopt(socket, SOL_SOCKET, option, &size, &length) == 0;
}

/// The system's limit for buffers holds for those alone who may not pass it.
bool RaiseBufferSize(int socket, int forcedOption, int option, int size) noexcept {
  return ::setsockopt(socket, SOL_SOCKET, forcedOption, &size, sizeof(size)) == 0 ||
         ::setsockopt(socket, SOL_SOCKET, option, &size, sizeof(size)) == 0;
}

void RaiseReceiveBuffer(int socket) {
  int size = 0;
  if (!ReadBufferSize(socket, SO_RCVBUF, size)) {
    g_nfs_log.Warning("Cannot get SO_RCVBUF", exc::win_sys_exc_t("getsockopt", SocketError()));
  } else if (size < ReceiveBufferSize && !RaiseBufferSize(socket, SO_RCVBUFFORCE, SO_RCVBUF, ReceiveBufferSize)) {
    g_nfs_log.Warning("Unable to update SO_RCVBUF option", exc::win_sys_exc_t("setsockopt", SocketError()));
  }
}

void RaiseSendBuffer(int socket) {
  int size = 0;
  if (!ReadBufferSize(socket, SO_SNDBUF, size)) {
    g_nfs_log.Warning("Cannot get SO_SNDBUF", exc::win_sys_exc_t("getsockopt", SocketError()));
  } else if (size >= SendBufferSize) {
    g_nfs_log.Info("Socket send buffer size: '%1'.", size);
  } else if (RaiseBufferSize(socket, SO_SNDBUFFORCE, SO_SNDBUF, SendBufferSize)) {
    g_nfs_log.Info("SO_SNDBUF option is updated.");
  } else {
    // The name of the other option stands here, too: the line is known by it.
    g_nfs_log.Warning("Unable to update SO_RCVBUF option", exc::win_sys_exc_t("setsockopt", SocketError()));
  }
}

}  // namespace

CClientSession::CClientSession(ClientThreadArgs args)
    : args_(std::move(args)),
      stopCtx_(boost::make_shared<CXdrSessionStopCtx>()),
      readerQueue_(boost::make_shared<xdr_reader_queue_t>()),
      completionQueue_(boost::make_shared<CXDRCompletionQueue>()),
      writerQueue_(boost::make_shared<xdr_writer_queue_t>()),
      calls_(boost::make_shared<CXdrBacklog>(MaxCalls, MaxCallBytes)),
      replies_(boost::make_shared<CXdrBacklog>(MaxReplies, MaxReplyBytes)) {}

int CClientSession::Run() noexcept {
  try {
    PrepareSocket();
    ReadPeer();
    Serve();
    return 0;
  } catch (const CCloseTCPConnection&) {
    g_nfs_log.Info("Connection closed : protocol server thread is finished.");
    return 0;
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Client thread error.", failure);
    return 1;
  }
}

/// As if the peer had closed it: a forced stop would read as a failure of the send thread.
void CClientSession::End() noexcept {
  stopCtx_->ReportClosed();
  args_.socket->Abort();
}

void CClientSession::PrepareSocket() {
  args_.socket->SetDelay(false);
  // A peer that lost its power never closes: without this its connection would stay for ever.
  const int on = 1;
  ::setsockopt(args_.socket->Socket(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  RaiseReceiveBuffer(args_.socket->Socket());
  RaiseSendBuffer(args_.socket->Socket());
}

void CClientSession::ReadPeer() {
  socklen_t length = sizeof(peer_);
  if (::getpeername(args_.socket->Socket(), reinterpret_cast<sockaddr*>(&peer_), &length) != 0)
    throw exc::win_sys_exc_t("Cannot get socket name", SocketError());
  std::array<std::uint8_t, sizeof(peer_.sin_addr)> bytes{};
  std::memcpy(bytes.data(), &peer_.sin_addr, bytes.size());
  g_nfs_log.Info("Client [%1.%2.%3.%4] connected.", bytes[0], bytes[1], bytes[2], bytes[3]);
}

void CClientSession::Serve() {
  const CXdrSessionReader reader(args_.socket, readerQueue_, calls_, stopCtx_);
  const CXdrSessionWriter writer(args_.socket, writerQueue_, replies_, stopCtx_);
  isAllowed_ = args_.addressChecker == nullptr ||
               args_.addressChecker->IsAllowed(reinterpret_cast<const sockaddr*>(&peer_), sizeof(peer_));
  for (;;) {
    if (!MayDispatch())
      WaitForWork();
    if (stopCtx_->IsStopped())
      break;
    TakeCalls();
    DispatchCalls(writer);
    PassReplies(writer);
    EndWhenAnswered();
  }
  if (failure_ != nullptr)
    std::rethrow_exception(failure_);
  stopCtx_->Rethrow();
  g_nfs_log.Info("Protocol server thread is finished.");
}

void CClientSession::WaitForWork() {
  std::array<synch::waitable_t*, 3> things = {stopCtx_->Event().get(), &completionQueue_->Event()};
  std::size_t count = 2;
  if (taken_.empty()) {
    if (!noMoreCalls_)
      things[count++] = &readerQueue_->Event();
  } else if (!replies_->HasRoom()) {
    things[count++] = &replies_->RoomEvent();
  } else if (completionQueue_->Weight() < MaxPendingBytes) {
    // Room has come since it was looked for, and nobody tells it twice.
    return;
  }
  while (!synch::waitable_t::WaitAny(std::span(things).first(count), synch::LongWaitMs))
    g_nfs_log.Warning("Protocol server timeout.");
}

void CClientSession::TakeCalls() {
  if (!taken_.empty() || noMoreCalls_)
    return;
  readerQueue_->TakeAll(taken_);
  if (taken_.empty() || taken_.back() != nullptr)
    return;
  taken_.pop_back();
  noMoreCalls_ = true;
}

bool CClientSession::MayDispatch() const noexcept {
  return !taken_.empty() && replies_->HasRoom() && completionQueue_->Weight() < MaxPendingBytes;
}

/// One by one, so that each is weighed before the next begins.
void CClientSession::DispatchCalls(const CXdrSessionWriter& writer) {
  while (MayDispatch()) {
    xdr_calls_t call;
    call.splice(call.begin(), taken_, taken_.begin());
    calls_->Remove(call.front()->Record().size());
    completionQueue_->TakePipes(writer.TakesPipes());
    try {
      args_.program->ProcessAsyncCalls(isAllowed_, peer_, call, completionQueue_, *args_.fs);
    } catch (const std::exception&) {
      TakeNoMoreCalls(std::current_exception());
    }
  }
}

void CClientSession::TakeNoMoreCalls(std::exception_ptr failure) noexcept {
  failure_ = std::move(failure);
  noMoreCalls_ = true;
  taken_.clear();
}

void CClientSession::PassReplies(const CXdrSessionWriter& writer) {
  xdr_replies_t due;
  completionQueue_->TakeFinished(due);
  for (const boost::shared_ptr<CXDRWriter>& reply : due)
    replies_->Add(reply->Used());
  writerQueue_->PushList(due);
  if (!writer.TakesPipes())
    EmptyQueuedPipes();
  if (failure_ == nullptr && completionQueue_->HasLostReply())
    TakeNoMoreCalls(std::make_exception_ptr(exc::runtime_exc_t("A call has no reply.")));
}

/// Those that came behind the writer's own look, before which it tells that it waits.
void CClientSession::EmptyQueuedPipes() {
  xdr_replies_t queued;
  writerQueue_->TakeAll(queued);
  for (const boost::shared_ptr<CXDRWriter>& reply : queued) {
    if (reply != nullptr)
      reply->EmptyPipes();
  }
  writerQueue_->PushList(queued);
}

/// Behind the last reply the send thread ends the session.
void CClientSession::EndWhenAnswered() {
  if (!noMoreCalls_ || lastReplyDue_ || !taken_.empty() || !completionQueue_->IsEmpty())
    return;
  writerQueue_->Push(nullptr);
  lastReplyDue_ = true;
}
