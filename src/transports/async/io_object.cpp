#include "transports/async/io_object.h"

#include <utility>

#include "foundation/log.h"
#include "transports/async/completion_port.h"

namespace win {

CIoEventHandler::CIoEventHandler(boost::intrusive_ptr<CIoObject> owner, io_direction_t direction)
    : owner_(std::move(owner)), direction_(direction) {}

CIoEventHandler::~CIoEventHandler() = default;

CIoObject::~CIoObject() = default;

void CIoObject::RegisterEvent(const boost::intrusive_ptr<CIoEventHandler>& handler) {
  const std::lock_guard guard(eventsLock_);
  events_[handler->Token()] = handler;
}

void CIoObject::UnregisterEvent(const CIoEventHandler& handler) {
  TakeEvent(handler.Token());
}

boost::intrusive_ptr<CIoEventHandler> CIoObject::TakeEvent(const void* token) {
  const std::lock_guard guard(eventsLock_);
  const auto found = events_.find(token);
  if (found == events_.end()) {
    return nullptr;
  }
  auto handler = std::move(found->second);
  events_.erase(found);
  return handler;
}

platform::error_t CIoObject::StartIo(const boost::intrusive_ptr<CIoEventHandler>& handler, bool tryFirst) {
  RegisterEvent(handler);
  try {
    return TryUntilPending(handler, tryFirst, false);
  } catch (const std::exception&) {
    // Nobody would ever complete it, and it would keep its object for ever.
    UnregisterEvent(*handler);
    throw;
  }
}

void CIoObject::TryAgain(const boost::intrusive_ptr<CIoEventHandler>& handler) noexcept {
  try {
    TryUntilPending(handler, true, true);
    return;
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Exception while handling I/O event.", failure);
  }
  // There is no room for its completion, so that it is completed here.
  const boost::intrusive_ptr<CIoEventHandler> taken = TakeEvent(handler->Token());
  try {
    if (taken)
      taken->OnComplete(*this, platform::error::NotEnoughMemory, 0);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Exception while handling I/O event.", failure);
  }
}

void CIoObject::CompleteLater(const boost::intrusive_ptr<CIoEventHandler>& handler, SIoResult result) {
  RegisterEvent(handler);
  try {
    port_->Post(this, handler->Token(), result);
  } catch (const std::exception&) {
    UnregisterEvent(*handler);
    throw;
  }
}

void CIoObject::CompleteIn(std::chrono::milliseconds delay, const boost::intrusive_ptr<CIoEventHandler>& handler) {
  RegisterEvent(handler);
  try {
    port_->PostIn(delay, this, handler->Token());
  } catch (const std::exception&) {
    UnregisterEvent(*handler);
    throw;
  }
}

platform::error_t CIoObject::TryUntilPending(boost::intrusive_ptr<CIoEventHandler> handler, bool tryFirst,
                                             bool isRetry) {
  const void* const token = handler->Token();
  const io_direction_t direction = handler->Direction();
  SSide& side = Side(direction);
  for (bool attempt = tryFirst;; attempt = true) {
    SIoResult result;
    if (attempt && !side.cancelled) {
      switch (handler->Attempt(GetHandle(), result)) {
        case io_attempt_t::Done:
          port_->Post(this, token, result);
          return platform::error::Success;
        case io_attempt_t::Refused:
          if (isRetry) {
            port_->Post(this, token, result);
            return platform::error::Success;
          }
          UnregisterEvent(*handler);
          return result.error;
        case io_attempt_t::Exhausted:
          port_->Rest(this, std::move(handler), result.error);
          return platform::error::Success;
        case io_attempt_t::WouldBlock:
          break;
      }
    }
    std::unique_lock guard(sidesLock_);
    if (side.cancelled) {
      guard.unlock();
      port_->Post(this, token, {platform::error::OperationAborted, 0});
      return platform::error::Success;
    }
    // Whoever was just told "would block" may wait: what came since has left its mark in ready.
    if (!side.ready && !(side.hungUp && !attempt)) {
      side.pending = std::move(handler);
      if (direction == io_direction_t::Write) {
        // Under the lock, so that the port hears of the wait before it can hear of its end.
        port_->WatchForRoom(*this, true);
      }
      return platform::error::Success;
    }
    side.ready = false;
  }
}

void CIoObject::OnReady(io_direction_t direction, bool hungUp) {
  boost::intrusive_ptr<CIoEventHandler> handler;
  {
    const std::lock_guard guard(sidesLock_);
    SSide& side = Side(direction);
    side.hungUp = side.hungUp || hungUp;
    if (!side.pending) {
      side.ready = true;
      return;
    }
    handler = std::move(side.pending);
  }
  if (direction == io_direction_t::Write) {
    port_->WatchForRoom(*this, false);
  }
  TryAgain(handler);
}

void CIoObject::CancelIo(io_direction_t direction) {
  boost::intrusive_ptr<CIoEventHandler> handler;
  {
    const std::lock_guard guard(sidesLock_);
    SSide& side = Side(direction);
    side.cancelled = true;
    handler = std::move(side.pending);
  }
  if (!handler) {
    return;
  }
  try {
    port_->Post(this, handler->Token(), {platform::error::OperationAborted, 0});
  } catch (const std::exception&) {
    // Without its completion it ends here; the handler's object may go with it.
    UnregisterEvent(*handler);
  }
}

void CIoObject::LeavePort() noexcept {
  if (port_) {
    port_->Forget(*this);
  }
}

void CIoObject::AbandonIo() {
  decltype(events_) events;
  boost::intrusive_ptr<CIoEventHandler> pending[2];
  {
    const std::lock_guard guard(eventsLock_);
    events.swap(events_);
  }
  const std::lock_guard guard(sidesLock_);
  for (std::size_t i = 0; i < 2; ++i) {
    pending[i].swap(sides_[i].pending);
  }
}

}  // namespace win
