// Waiting for the first of several things.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <span>

namespace platform {
struct deadline_t;
}

namespace synch {

/// A wait without a real limit: 21 days, in milliseconds.
inline constexpr std::uint32_t LongWaitMs = 1814400000;
/// A wait without any limit.
inline constexpr std::uint32_t NoLimit = 0xFFFFFFFF;

/// Something that a thread can wait for. Any thread may call anything. Who waits spins a little before sleeping where
/// the machine has several processors; who signals makes a system call only when someone sleeps. The waiter may come
/// back before the signaller has left Set or Release: the object must outlive both.
class waitable_t {
 public:
  waitable_t() = default;
  waitable_t(const waitable_t&) = delete;
  waitable_t& operator=(const waitable_t&) = delete;

  /// True when it is signalled; takes the signal where it can be taken once. Never waits.
  virtual bool TryTake() noexcept = 0;
  /// Waits up to so many milliseconds; false when they have passed.
  bool Wait(std::uint32_t limitMs = NoLimit) noexcept;

  /// Of the things given, the first in their order that is signalled, as an index; none when the limit (milliseconds)
  /// passed. Takes the signal of that one alone.
  static std::optional<std::size_t> WaitAny(std::span<waitable_t* const> things,
                                            std::uint32_t limitMs = NoLimit) noexcept;
  static std::optional<std::size_t> WaitAny(std::initializer_list<waitable_t*> things,
                                            std::uint32_t limitMs = NoLimit) noexcept {
    return WaitAny(std::span<waitable_t* const>(things.begin(), things.size()), limitMs);
  }

 protected:
  ~waitable_t() = default;

  /// True when TryTake would succeed; takes nothing.
  virtual bool IsAvailable() const noexcept = 0;
  /// Changes with each signal that ends every wait that had begun before it, whatever becomes of the signal afterwards.
  virtual std::uint32_t ReleaseCount() const noexcept { return 0; }
  /// After the signal is there: tells up to count sleepers to look.
  void WakeSleepers(std::size_t count) noexcept {
    if (watchers_.load(std::memory_order_seq_cst) != 0)
      WakeWatchers(count);
  }

  /// Called with lock_ held whenever the signal changed while watchers_ was not 0.
  virtual void SignalChangedLocked() noexcept {}

  /// Sleepers, and one for each other reason to come by the lock after a change of the signal.
  std::atomic<std::uint32_t> watchers_{0};
  /// Guards sleepers_. Taken only by who sleeps and who wakes sleepers.
  mutable std::mutex lock_;

 private:
  struct sleeper_t;
  struct place_t;

  void WakeWatchers(std::size_t count) noexcept;
  void Enlist(place_t& place) noexcept;
  void Delist(place_t& place) noexcept;
  static std::optional<std::size_t> FirstTaken(std::span<waitable_t* const> things) noexcept;
  static std::optional<std::size_t> Spin(std::span<waitable_t* const> things) noexcept;
  static std::optional<std::size_t> Sleep(std::span<waitable_t* const> things,
                                          const platform::deadline_t& deadline) noexcept;

  place_t* firstPlace_ = nullptr;
  place_t* lastPlace_ = nullptr;
};

}  // namespace synch
