// The receiving half of a connection: one state machine over one pending receive.
#include <arpa/inet.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstring>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/async/async_connection.h"
#include "transports/async/tcp_response_sender.h"
#include "transports/sockets/close_tcp_connection.h"

namespace impl {
namespace {

/// What is sent goes before what is received: a client can keep the pipe that its data stays in.
constexpr std::size_t PipesForOthers = platform::kernel_pipe_t::Most / 2;
constexpr std::uint32_t LastFragment = 0x80000000U;

}  // namespace

class CAsyncConnection::CReceiveCall {
 public:
  explicit CReceiveCall(CAsyncConnection& connection) : connection_(connection) {}
  win::io_attempt_t Attempt(int handle, win::SIoResult& result) { return connection_.AttemptReceive(handle, result); }
  void operator()(platform::error_t error, std::uint32_t bytes) { connection_.OnReceived(error, bytes); }

 private:
  CAsyncConnection& connection_;
};

class CAsyncConnection::CResumeCall {
 public:
  explicit CResumeCall(CAsyncConnection& connection) : connection_(connection) {}
  win::io_attempt_t Attempt(int, win::SIoResult&) { return win::io_attempt_t::Done; }
  void operator()(platform::error_t, std::uint32_t) { connection_.OnResumed(); }

 private:
  CAsyncConnection& connection_;
};

void CAsyncConnection::StartReceive(bool tryFirst) {
  const platform::error_t error =
      StartIo(new CIOEvent<CReceiveCall>(this, win::io_direction_t::Read, CReceiveCall(*this)), tryFirst);
  if (error == platform::error::WsaConnectionAborted) {
    throw CCloseTCPConnection();
  }
  if (error != platform::error::Success) {
    throw exc::win_sys_exc_t("Receive failed", error);
  }
}

win::io_attempt_t CAsyncConnection::AttemptReceive(int handle, win::SIoResult& result) {
  std::array<iovec, 2> pieces{};
  std::size_t count = 0;
  receiveRoom_ = 0;
  const auto add = [&](std::uint8_t* data, std::size_t room) {
    pieces[count++] = {data, room};
    receiveRoom_ += room;
  };
  if (body_ && bodyBytes_ >= body_->size()) {
    return AttemptReceiveRest(handle, result);
  }
  if (body_) {
    add(body_->data() + bodyBytes_, body_->size() - bodyBytes_);
  }
  if (!body_ || body_->size() == bodySize_) {
    // The data of a large record goes where it shall be, and not where it would be copied from.
    const std::size_t little = headerBuffer_.size() - headerBytes_ + leaveFrom_.load(std::memory_order_relaxed);
    add(staging_.get(), expectLarge_ ? std::min(little, StagingSize) : StagingSize);
  }
  return TryReceive(handle, pieces.data(), count, result);
}

win::io_attempt_t CAsyncConnection::AttemptReceiveRest(int handle, win::SIoResult& result) {
  if (!rest_) {
    rest_ = platform::kernel_pipe_t::Acquire(PipesForOthers);
  }
  bool inMemory = !rest_;
  if (!inMemory) {
    const win::io_attempt_t attempt = TryReceivePipe(handle, *rest_, bodySize_ - bodyBytes_, inMemory, result);
    if (!inMemory) {
      if (rest_->Held() == 0) {
        // Who has not sent anything yet keeps none from others.
        rest_.reset();
      }
      // A move may end before the socket is empty: only the next attempt tells.
      receiveRoom_ = result.bytes;
      return attempt;
    }
  }
  result.error = EndRest();
  return result.error == platform::error::Success ? AttemptReceive(handle, result) : win::io_attempt_t::Done;
}

void CAsyncConnection::OnReceived(platform::error_t error, std::uint32_t bytes) {
  logging::quiet_log_scope_t scope(g_nfs_log, "Processing incoming TCP data. Data size: [%1]. Error code: [%2].", bytes,
                                   error);
  if (error != platform::error::Success) {
    if (error != platform::error::NetnameDeleted) {
      g_nfs_log.Error("Client %1: receive error %2", clientName_, error);
    }
  } else if (bytes != 0) {
    // Fewer bytes than there was room for: the socket was empty, and asking it again at once would be for nothing.
    const bool mayHaveMore = bytes == receiveRoom_;
    PlaceReceived(bytes);
    if (TakeArrived()) {
      StartReceive(mayHaveMore);
    }
  }
  scope.Success();
}

void CAsyncConnection::PlaceReceived(std::size_t bytes) {
  if (body_) {
    const std::size_t ofBody = std::min(bytes, (leaveRest_ ? bodySize_ : body_->size()) - bodyBytes_);
    bodyBytes_ += ofBody;
    bytes -= ofBody;
  }
  stagingEnd_ += bytes;
}

bool CAsyncConnection::TakeArrived() {
  for (;;) {
    if (!body_) {
      headerBytes_ += TakeStaged(headerBuffer_.data() + headerBytes_, headerBuffer_.size() - headerBytes_);
      // With the connection about to be closed, what came with the failed request is not looked at any more.
      if (headerBytes_ < headerBuffer_.size() || closing_) {
        return true;
      }
      if (!BeginBody()) {
        return false;
      }
    }
    if (bodyBytes_ < body_->size()) {
      bodyBytes_ += TakeStaged(body_->data() + bodyBytes_, body_->size() - bodyBytes_);
    }
    if (bodyBytes_ < body_->size() || (leaveRest_ && bodyBytes_ < bodySize_)) {
      return true;
    }
    if (bodyBytes_ < bodySize_) {
      if (!GrowBody()) {
        return false;
      }
      continue;
    }
    PostRecord();
    if (PauseIfOverloaded()) {
      return false;
    }
  }
}

std::size_t CAsyncConnection::TakeStaged(std::uint8_t* target, std::size_t room) {
  const std::size_t length = std::min(room, stagingEnd_ - stagingBegin_);
  std::memcpy(target, staging_.get() + stagingBegin_, length);
  stagingBegin_ += length;
  if (stagingBegin_ == stagingEnd_) {
    stagingBegin_ = stagingEnd_ = 0;
  }
  return length;
}

bool CAsyncConnection::BeginBody() {
  std::uint32_t word = 0;
  std::memcpy(&word, headerBuffer_.data(), sizeof(word));
  word = ntohl(word);
  headerBytes_ = 0;
  if ((word & LastFragment) == 0) {
    g_nfs_log.Error("Client %1: partial packet not implemented", clientName_);
    return false;
  }
  bodySize_ = word & ~LastFragment;
  if (bodySize_ == 0) {
    // A receive of nothing brings nothing, which is how the end of a stream looks.
    return false;
  }
  expectLarge_ = bodySize_ > StagingSize;
  bodyBytes_ = 0;
  const std::size_t wanted = leaveFrom_.load(std::memory_order_relaxed);
  // What has come already is in memory.
  const std::size_t first = std::max(wanted, stagingEnd_ - stagingBegin_);
  leaveRest_ = wanted != 0 && wanted <= StagingSize && bodySize_ >= first + platform::kernel_pipe_t::Least &&
               bodySize_ <= first + platform::kernel_pipe_t::Largest;
  auto body = boost::make_shared<CRecordBuffer>();
  body->resize(leaveRest_ ? first : std::min(bodySize_, CRecordBuffer::FirstSize));
  body_ = std::move(body);
  return true;
}

platform::error_t CAsyncConnection::EndRest() {
  const std::size_t first = body_->size();
  body_->resize(bodySize_);
  leaveRest_ = false;
  if (!rest_) {
    return platform::error::Success;
  }
  const boost::shared_ptr<platform::kernel_pipe_t> rest = std::move(rest_);
  std::size_t read = 0;
  return rest->Read(std::span(*body_).subspan(first, bodyBytes_ - first), read);
}

bool CAsyncConnection::GrowBody() {
  if (body_->GrowTo(std::min(bodySize_, body_->size() * 2))) {
    return true;
  }
  g_nfs_log.Error("Client %1: large records take too much memory", clientName_);
  body_.reset();
  return false;
}

void CAsyncConnection::PostRecord() {
  const boost::intrusive_ptr<CResponseSender> sender(new CTcpResponseSender(this, bodySize_));
  queue_->Post(sender, std::move(body_), nullptr, std::move(rest_));
  body_.reset();
  rest_.reset();
  leaveRest_ = false;
  bodyBytes_ = 0;
}

bool CAsyncConnection::IsOverloadedLocked(std::size_t divisor) const {
  return requests_ >= MaxRequests / divisor || requestBytes_ >= MaxRequestBytes / divisor ||
         unsentBytes_ >= MaxUnsentBytes / divisor;
}

bool CAsyncConnection::PauseIfOverloaded() {
  const std::lock_guard guard(sendLock_);
  paused_ = IsOverloadedLocked(1);
  return paused_;
}

bool CAsyncConnection::ShallResumeLocked() {
  if (!paused_ || IsOverloadedLocked(2)) {
    return false;
  }
  paused_ = false;
  return true;
}

void CAsyncConnection::Resume() {
  CompleteLater(new CIOEvent<CResumeCall>(this, win::io_direction_t::Read, CResumeCall(*this)), {});
}

void CAsyncConnection::OnResumed() {
  if (TakeArrived()) {
    StartReceive(true);
  }
}

void CAsyncConnection::RequestBegun(std::size_t recordSize) {
  const std::lock_guard guard(sendLock_);
  ++requests_;
  requestBytes_ += recordSize;
}

void CAsyncConnection::RequestOver(std::size_t recordSize) noexcept {
  bool resume = false;
  {
    const std::lock_guard guard(sendLock_);
    --requests_;
    requestBytes_ -= recordSize;
    resume = ShallResumeLocked();
  }
  if (!resume) {
    return;
  }
  try {
    Resume();
  } catch (const std::exception& failure) {
    // Nothing is received any more: the connection ends with its last request.
    g_nfs_log.Error("Exception while handling I/O event.", failure);
  }
}

}  // namespace impl
