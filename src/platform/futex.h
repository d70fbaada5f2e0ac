// The kernel's wait on a word of memory: what every wait in the process is made of.
#pragma once

#include <atomic>
#include <cstdint>

namespace platform {

/// A moment on the monotonic clock, nanoseconds; Never does not come.
struct deadline_t {
  static constexpr std::int64_t NeverNs = INT64_MAX;

  std::int64_t monotonicNs = NeverNs;

  static deadline_t Never() noexcept { return {}; }
  /// Milliseconds from now.
  static deadline_t After(std::uint64_t milliseconds) noexcept;
  bool IsOver() const noexcept;
  /// Milliseconds that are left, rounded up; 0 when over, 0xFFFFFFFF for never.
  std::uint32_t RemainingMs() const noexcept;
};

/// Nanoseconds on the monotonic clock.
std::int64_t MonotonicNanoseconds() noexcept;

/// Sleeps while the word holds expected. Returns on a wake, on another value, at times for no reason at all, and at the
/// deadline: the caller looks again each time. False at the deadline.
bool FutexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, const deadline_t& deadline) noexcept;

/// Wakes up to count threads that sleep on the word. The word is not read: it may be gone already.
void FutexWake(const std::atomic<std::uint32_t>* word, std::int32_t count) noexcept;

/// Processors that this process may run on, at least 1. Read once.
unsigned AvailableProcessors() noexcept;

/// Tells the processor that the caller is spinning.
inline void SpinPause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield" ::: "memory");
#endif
}

}  // namespace platform
