// Time, behind an interface so that a test can let minutes pass at once.
#pragma once

#include <cstdint>
#include <ctime>

namespace platform {

/// Where time comes from. Any thread.
class clock_source_t {
 public:
  virtual ~clock_source_t() = default;

  /// Nanoseconds since 1970-01-01 UTC. Jumps when the administrator sets the clock.
  virtual std::int64_t WallNanoseconds() const = 0;
  /// Milliseconds since some moment before the process began. Never goes back.
  virtual std::uint64_t MonotonicMilliseconds() const = 0;
  /// The local time of a moment given in seconds since 1970-01-01 UTC.
  virtual std::tm LocalTime(std::int64_t seconds) const = 0;
  /// Blocks the calling thread for at least this long.
  virtual void Sleep(std::uint32_t milliseconds) = 0;
};

/// The machine's own clock. Lives as long as the process.
clock_source_t& SystemClock() noexcept;

/// The clock that the process goes by: the system's unless SetClock named another.
clock_source_t& Clock() noexcept;

/// Replaces the process's clock; null gives the system's back. Returns the one replaced. The caller keeps it alive
/// until it is replaced again and no thread uses it any more. For tests.
clock_source_t* SetClock(clock_source_t* clock) noexcept;

}  // namespace platform
