// The sending half of a connection: replies leave in order, as many at once as are there.
#include <algorithm>
#include <climits>
#include <stdexcept>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/async/async_connection.h"

namespace impl {
namespace {

/// Segments of one gather send; what exceeds it goes with the next.
constexpr std::size_t MaxPieces = 128;
static_assert(MaxPieces <= IOV_MAX);

}  // namespace

class CAsyncConnection::CSendCall {
 public:
  explicit CSendCall(CAsyncConnection& connection) : connection_(connection) {}
  win::io_attempt_t Attempt(int handle, win::SIoResult& result) { return connection_.AttemptSend(handle, result); }
  void operator()(platform::error_t error, std::uint32_t bytes) { connection_.OnSent(error, bytes); }

 private:
  CAsyncConnection& connection_;
};

class CAsyncConnection::CSendHeldCall {
 public:
  explicit CSendHeldCall(CAsyncConnection& connection) : connection_(connection) {}
  win::io_attempt_t Attempt(int, win::SIoResult&) { return win::io_attempt_t::Done; }
  void operator()(platform::error_t, std::uint32_t) { connection_.OnHoldLimit(); }

 private:
  CAsyncConnection& connection_;
};

void CAsyncConnection::SendReply(CXDRWriter& writer, bool hold) {
  if (closing_) {
    return;
  }
  std::vector<SXdrSegment> segments = writer.TakeSegments(true);
  {
    const std::lock_guard guard(sendLock_);
    if (broken_) {
      return;
    }
    for (SXdrSegment& segment : segments) {
      if (segment.length == 0) {
        continue;
      }
      unsentBytes_ += segment.length + KeptBeside(segment);
      pipesQueued_ += segment.pipe != nullptr ? 1 : 0;
      sendQueue_.push_back(std::move(segment));
    }
    if (sending_ || (hold && holdLimited_)) {
      return;
    }
    (hold ? holdLimited_ : sending_) = true;
  }
  if (hold) {
    StartHoldLimit();
  } else {
    PumpReplies();
  }
}

void CAsyncConnection::StartHoldLimit() {
  CompleteIn(MaxHold, new CIOEvent<CSendHeldCall>(this, win::io_direction_t::Write, CSendHeldCall(*this)));
}

void CAsyncConnection::OnHoldLimit() {
  {
    const std::lock_guard guard(sendLock_);
    holdLimited_ = false;
  }
  if (BeginSendingHeld()) {
    StartSend(true);
  }
}

void CAsyncConnection::SendHeld() {
  if (BeginSendingHeld()) {
    PumpReplies();
  }
}

bool CAsyncConnection::BeginSendingHeld() {
  const std::lock_guard guard(sendLock_);
  if (sending_ || sendQueue_.empty()) {
    return false;
  }
  sending_ = true;
  return true;
}

bool CAsyncConnection::MayAnswer() {
  // Others only lessen it: what is too little now is so then.
  if (unsentBytes_.load(std::memory_order_relaxed) < MaxUnsentBytes) {
    return true;
  }
  const std::lock_guard guard(sendLock_);
  // Replies of a connection that is over are dropped: nothing waits for them.
  parked_ = unsentBytes_ >= MaxUnsentBytes && !broken_ && !closing_;
  return !parked_;
}

bool CAsyncConnection::TakesPipes() const noexcept {
  return !stalled_.load(std::memory_order_relaxed) || !platform::kernel_pipe_t::AreScarce();
}

bool CAsyncConnection::ShallContinueParkedLocked() {
  if (!parked_ || (unsentBytes_ >= MaxUnsentBytes / 2 && !broken_ && !closing_)) {
    return false;
  }
  parked_ = false;
  return true;
}

void CAsyncConnection::PumpReplies() {
  for (;;) {
    win::SIoResult result;
    const win::io_attempt_t attempt = AttemptSend(GetHandle(), result);
    if (attempt == win::io_attempt_t::Refused) {
      FailSend(result.error);
    }
    if (attempt != win::io_attempt_t::Done) {
      StartSend(attempt == win::io_attempt_t::Exhausted);
      return;
    }
    if (!AccountSent(result.error, result.bytes)) {
      return;
    }
  }
}

void CAsyncConnection::StartSend(bool tryFirst) {
  platform::error_t error = platform::error::NotEnoughMemory;
  try {
    error = StartIo(new CIOEvent<CSendCall>(this, win::io_direction_t::Write, CSendCall(*this)), tryFirst);
  } catch (const std::exception&) {
    // What was sent on the way, if anything, is not known any more.
  }
  if (error != platform::error::Success) {
    FailSend(error);
  }
}

void CAsyncConnection::FailSend(platform::error_t error) {
  bool continueParked = false;
  {
    const std::lock_guard guard(sendLock_);
    broken_ = true;
    continueParked = ShallContinueParkedLocked();
  }
  if (continueParked) {
    queue_->ContinueParked();
  }
  // Nothing is sent any more; a peer that gets no answers learns of it by the end of the connection.
  CancelIo(win::io_direction_t::Read);
  throw exc::win_sys_exc_t("Send failed", error);
}

win::io_attempt_t CAsyncConnection::AttemptSend(int handle, win::SIoResult& result) {
  std::array<iovec, MaxPieces> pieces;
  std::size_t count = 0;
  bool more = false;
  const SXdrSegment* piped = nullptr;
  std::size_t left = 0;
  {
    const std::lock_guard guard(sendLock_);
    if (sendQueue_.front().pipe != nullptr) {
      piped = &sendQueue_.front();
      left = piped->length - sendOffset_;
      more = sendQueue_.size() > 1;
    } else {
      count = GatherLocked(pieces.data(), pieces.size());
      more = count < sendQueue_.size();
    }
  }
  // The segments stay where they are: only the sender takes them out, and there is one at a time.
  win::io_attempt_t attempt = piped != nullptr ? TrySendPipe(handle, *piped->pipe, left, more, result)
                                               : TrySend(handle, pieces.data(), count, more, result);
  if (attempt == win::io_attempt_t::WouldBlock) {
    stalled_.store(true, std::memory_order_relaxed);
    result.error = EmptyPipes();
    if (result.error != platform::error::Success) {
      attempt = win::io_attempt_t::Done;
    }
  }
  return attempt;
}

platform::error_t CAsyncConnection::EmptyPipes() noexcept {
  for (std::size_t i = 0; platform::kernel_pipe_t::AreScarce(); ++i) {
    SXdrSegment* segment = nullptr;
    {
      const std::lock_guard guard(sendLock_);
      if (pipesQueued_ == 0 || i == sendQueue_.size()) {
        break;
      }
      segment = &sendQueue_[i];
    }
    if (segment->pipe == nullptr) {
      continue;
    }
    if (const platform::error_t error = EmptyPipe(*segment, i == 0); error != platform::error::Success) {
      return error;
    }
  }
  return platform::error::Success;
}

platform::error_t CAsyncConnection::EmptyPipe(SXdrSegment& segment, bool isFirst) noexcept {
  SXdrSegment inMemory = segment;
  const platform::error_t error = BringIntoMemory(inMemory);
  if (error != platform::error::Success || inMemory.pipe != nullptr) {
    return error;
  }
  const std::lock_guard guard(sendLock_);
  unsentBytes_ += KeptBeside(inMemory) - KeptBeside(segment);
  --pipesQueued_;
  segment = std::move(inMemory);
  if (isFirst) {
    sendOffset_ = 0;
  }
  return platform::error::Success;
}

std::size_t CAsyncConnection::GatherLocked(iovec* pieces, std::size_t room) {
  const std::size_t most = std::min(room, sendQueue_.size());
  std::size_t offset = sendOffset_;
  std::size_t count = 0;
  for (; count < most && sendQueue_[count].pipe == nullptr; ++count) {
    const SXdrSegment& segment = sendQueue_[count];
    if (offset >= segment.length) {
      throw std::logic_error("Attempting to send already sent buffer");
    }
    // sendmsg only reads what the pieces point at.
    pieces[count] = {const_cast<std::uint8_t*>(segment.buffer->data() + segment.offset + offset),  // NOLINT
                     segment.length - offset};
    offset = 0;
  }
  return count;
}

void CAsyncConnection::OnSent(platform::error_t error, std::uint32_t bytes) {
  logging::quiet_log_scope_t scope(g_nfs_log, "Sending data via TCP. Error code: [%1]. Bytes to send: [%2].", error,
                                   bytes);
  // One send a completion: a client that always has room does not keep the others waiting.
  if (AccountSent(error, bytes)) {
    StartSend(true);
  }
  scope.Success();
}

bool CAsyncConnection::AccountSent(platform::error_t error, std::uint32_t bytes) {
  if (error != platform::error::Success) {
    g_nfs_log.Error("Client %1: send error %1", clientName_);
  }
  bool more = false;
  bool end = false;
  bool resume = false;
  bool continueParked = false;
  {
    const std::lock_guard guard(sendLock_);
    if (error != platform::error::Success) {
      broken_ = true;
      // The receiving side learns by itself that the peer went away, and of nothing else.
      end = error != platform::error::NetnameDeleted;
    } else {
      DropSentLocked(bytes);
      more = !sendQueue_.empty();
      sending_ = more;
      stalled_.store(more && stalled_.load(std::memory_order_relaxed), std::memory_order_relaxed);
      end = !more && closing_;
      resume = ShallResumeLocked();
    }
    continueParked = ShallContinueParkedLocked();
  }
  if (continueParked) {
    queue_->ContinueParked();
  }
  if (end) {
    CancelIo(win::io_direction_t::Read);
  }
  if (resume) {
    Resume();
  }
  return more;
}

void CAsyncConnection::DropSentLocked(std::size_t bytes) {
  std::size_t freed = bytes;
  sendOffset_ += bytes;
  while (!sendQueue_.empty() && sendOffset_ >= sendQueue_.front().length) {
    freed += KeptBeside(sendQueue_.front());
    pipesQueued_ -= sendQueue_.front().pipe != nullptr ? 1 : 0;
    sendOffset_ -= sendQueue_.front().length;
    sendQueue_.pop_front();
  }
  unsentBytes_ -= freed;
}

/// Few bytes may keep a large buffer, and many small replies far more than their bytes.
std::size_t CAsyncConnection::KeptBeside(const SXdrSegment& segment) noexcept {
  return PieceWeight + (segment.buffer == nullptr ? 0 : segment.buffer->capacity() - segment.length);
}

void CAsyncConnection::Close() {
  bool flush = false;
  bool end = false;
  bool continueParked = false;
  {
    const std::lock_guard guard(sendLock_);
    closing_ = true;
    flush = !sending_ && !sendQueue_.empty();
    end = broken_ || (!sending_ && !flush);
    sending_ = sending_ || flush;
    continueParked = ShallContinueParkedLocked();
  }
  if (continueParked) {
    queue_->ContinueParked();
  }
  if (flush) {
    try {
      PumpReplies();
    } catch (const std::exception& failure) {
      g_nfs_log.Error("Exception while handling I/O event.", failure);
      end = true;
    }
  }
  if (end) {
    CancelIo(win::io_direction_t::Read);
  }
}

}  // namespace impl
