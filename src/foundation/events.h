// Events: a signal that stays, and a signal that one waiter takes.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/waitable.h"

namespace synch {

/// Manual reset: once set, every waiter passes until it is reset. Who sleeps when it is set passes even if it is reset
/// at once. Any thread.
class manual_event_t final : public waitable_t {
 public:
  explicit manual_event_t(bool set = false) noexcept : set_(set) {}
  ~manual_event_t();

  void Set() noexcept {
    if (!set_.exchange(true, std::memory_order_seq_cst))
      WakeSleepers(SIZE_MAX, true);
  }
  void Reset() noexcept {
    if (set_.exchange(false, std::memory_order_seq_cst))
      WakeSleepers(0, false);
  }
  bool IsSet() const noexcept { return set_.load(std::memory_order_acquire); }
  bool TryTake() noexcept override { return IsSet(); }

  /// A descriptor that is readable while the event is set, for a wait together with sockets. Made at the first call,
  /// owned by the event, not to be read or written. Throws "Cannot create an event object.".
  int PollDescriptor();

 protected:
  bool IsAvailable() const noexcept override { return IsSet(); }
  void SignalChangedLocked() noexcept override;

 private:
  std::atomic<bool> set_;
  /// Guarded by lock_; -1 until asked for.
  int descriptor_ = -1;
  bool descriptorSet_ = false;
};

/// Auto reset: the first waiter takes the signal. Setting it twice before that is setting it once. Any thread.
class auto_event_t final : public waitable_t {
 public:
  explicit auto_event_t(bool set = false) noexcept : set_(set) {}

  void Set() noexcept {
    if (!set_.exchange(true, std::memory_order_seq_cst))
      WakeSleepers(1, false);
  }
  void Reset() noexcept { set_.store(false, std::memory_order_seq_cst); }
  bool TryTake() noexcept override {
    return set_.load(std::memory_order_relaxed) && set_.exchange(false, std::memory_order_seq_cst);
  }

 protected:
  bool IsAvailable() const noexcept override { return set_.load(std::memory_order_seq_cst); }

 private:
  std::atomic<bool> set_;
};

}  // namespace synch
