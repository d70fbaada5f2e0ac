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
  explicit manual_event_t(bool set = false) noexcept : word_(set ? IsSetBit : 0) {}
  ~manual_event_t();

  void Set() noexcept;
  void Reset() noexcept;
  bool IsSet() const noexcept { return (word_.load(std::memory_order_seq_cst) & IsSetBit) != 0; }
  bool TryTake() noexcept override { return IsSet(); }

  /// A descriptor that is readable while the event is set, for a wait together with sockets. Made at the first call,
  /// owned by the event, not to be read or written. Throws "Cannot create an event object.".
  int PollDescriptor();

 protected:
  bool IsAvailable() const noexcept override { return IsSet(); }
  std::uint32_t ReleaseCount() const noexcept override { return word_.load(std::memory_order_seq_cst) >> 1; }
  void SignalChangedLocked() noexcept override;

 private:
  static constexpr std::uint32_t IsSetBit = 1;

  /// Whether it is set, and above that how often it has been.
  std::atomic<std::uint32_t> word_;
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
      WakeSleepers(1);
  }
  void Reset() noexcept { set_.store(false, std::memory_order_seq_cst); }
  bool TryTake() noexcept override {
    return set_.load(std::memory_order_seq_cst) && set_.exchange(false, std::memory_order_seq_cst);
  }

 protected:
  bool IsAvailable() const noexcept override { return set_.load(std::memory_order_seq_cst); }

 private:
  std::atomic<bool> set_;
};

}  // namespace synch
