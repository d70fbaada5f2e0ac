#include "platform/futex.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace platform {

namespace {

constexpr std::int64_t NsPerSecond = 1000000000;
constexpr std::int64_t NsPerMillisecond = 1000000;

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

}  // namespace

std::int64_t MonotonicNanoseconds() noexcept {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * NsPerSecond + now.tv_nsec;
}

deadline_t deadline_t::After(std::uint64_t milliseconds) noexcept {
  const std::int64_t now = MonotonicNanoseconds();
  if (milliseconds >= static_cast<std::uint64_t>((NeverNs - now) / NsPerMillisecond))
    return Never();
  return {now + static_cast<std::int64_t>(milliseconds) * NsPerMillisecond};
}

bool deadline_t::IsOver() const noexcept {
  return monotonicNs != NeverNs && MonotonicNanoseconds() >= monotonicNs;
}

std::uint32_t deadline_t::RemainingMs() const noexcept {
  if (monotonicNs == NeverNs)
    return UINT32_MAX;
  const std::int64_t left = monotonicNs - MonotonicNanoseconds();
  if (left <= 0)
    return 0;
  // Short of what stands for "no limit".
  return static_cast<std::uint32_t>(
      std::min<std::int64_t>((left + NsPerMillisecond - 1) / NsPerMillisecond, UINT32_MAX - 1));
}

bool FutexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected, const deadline_t& deadline) noexcept {
  timespec end = {};
  const timespec* limit = nullptr;
  if (deadline.monotonicNs != deadline_t::NeverNs) {
    end.tv_sec = static_cast<std::time_t>(deadline.monotonicNs / NsPerSecond);
    end.tv_nsec = static_cast<long>(deadline.monotonicNs % NsPerSecond);
    limit = &end;
  }
  // The form with a bit set is the one whose limit is a moment, not a length.
  const long result =
      ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, limit, nullptr, FUTEX_BITSET_MATCH_ANY);
  return result == 0 || errno != ETIMEDOUT;
}

void FutexWake(const std::atomic<std::uint32_t>* word, std::int32_t count) noexcept {
  ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

unsigned AvailableProcessors() noexcept {
  static const unsigned count = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_COUNT(&set) > 0)
      return static_cast<unsigned>(CPU_COUNT(&set));
    const long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<unsigned>(online) : 1U;
  }();
  return count;
}

}  // namespace platform
