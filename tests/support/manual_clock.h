// A clock that stands still until the test moves it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "platform/clock.h"

namespace test {

/// Local time is UTC. A sleeping thread wakes when the clock was moved far enough, so minutes pass at once. Any thread.
class ManualClock : public platform::clock_source_t {
 public:
  explicit ManualClock(std::int64_t wallSeconds = 1700000000) : wall_(wallSeconds * 1000000000) {}

  std::int64_t WallNanoseconds() const override {
    const std::lock_guard lock(mutex_);
    return wall_;
  }
  std::uint64_t MonotonicMilliseconds() const override {
    const std::lock_guard lock(mutex_);
    return monotonic_;
  }
  std::tm LocalTime(std::int64_t seconds) const override {
    const auto moment = static_cast<std::time_t>(seconds);
    std::tm result{};
    ::gmtime_r(&moment, &result);
    return result;
  }
  void Sleep(std::uint32_t milliseconds) override {
    std::unique_lock lock(mutex_);
    const std::uint64_t end = monotonic_ + milliseconds;
    ++sleeping_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return monotonic_ >= end; });
    --sleeping_;
    changed_.notify_all();
  }

  void Advance(std::uint64_t milliseconds) {
    const std::lock_guard lock(mutex_);
    monotonic_ += milliseconds;
    wall_ += static_cast<std::int64_t>(milliseconds) * 1000000;
    changed_.notify_all();
  }
  /// As when the administrator sets the clock: time that has passed stays what it is.
  void SetWall(std::int64_t nanoseconds) {
    const std::lock_guard lock(mutex_);
    wall_ = nanoseconds;
  }
  /// Returns once this many threads sleep.
  void WaitForSleepers(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return sleeping_ >= count; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t wall_;
  std::uint64_t monotonic_ = 1000;
  int sleeping_ = 0;
};

/// Makes a clock the process's while it lives.
class ScopedClock {
 public:
  explicit ScopedClock(platform::clock_source_t& clock) : old_(platform::SetClock(&clock)) {}
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;
  ~ScopedClock() { platform::SetClock(old_); }

 private:
  platform::clock_source_t* old_;
};

}  // namespace test
