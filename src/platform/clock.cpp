#include "platform/clock.h"

#include <atomic>
#include <cerrno>

namespace platform {
namespace {

class system_clock_source_t final : public clock_source_t {
 public:
  std::int64_t WallNanoseconds() const override {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
  }

  std::uint64_t MonotonicMilliseconds() const override {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
  }

  std::tm LocalTime(std::int64_t seconds) const override {
    const auto moment = static_cast<std::time_t>(seconds);
    std::tm local{};
    ::localtime_r(&moment, &local);
    return local;
  }

  void Sleep(std::uint32_t milliseconds) override {
    timespec end{};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += milliseconds / 1000;
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (end.tv_nsec >= 1000000000) {
      ++end.tv_sec;
      end.tv_nsec -= 1000000000;
    }
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
  }
};

std::atomic<clock_source_t*>& Replacement() noexcept {
  static std::atomic<clock_source_t*> replacement = nullptr;
  return replacement;
}

}  // namespace

clock_source_t& SystemClock() noexcept {
  // Never destroyed: threads may still ask for the time while the process ends.
  static auto& clock = *new system_clock_source_t;
  return clock;
}

clock_source_t& Clock() noexcept {
  clock_source_t* replaced = Replacement().load(std::memory_order_acquire);
  return replaced == nullptr ? SystemClock() : *replaced;
}

clock_source_t* SetClock(clock_source_t* clock) noexcept {
  clock_source_t* old = Replacement().exchange(clock, std::memory_order_acq_rel);
  return old == nullptr ? &SystemClock() : old;
}

}  // namespace platform
