// The root folder for those who ask often.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

/// Reads the root folder again when the last reading is 30 seconds old, so that a change reaches the running service
/// within that time. Goes by platform::Clock(). Any thread; only the first reading is waited for by all: later the
/// others go on with what is known while one reads.
class CRegOptionsCache {
 public:
  static constexpr std::uint64_t PeriodMilliseconds = 30000;

  /// The expanded root folder. Throws when it cannot be read for the first time, and the next call tries again; a later
  /// failure is logged, and what is known stands for another period.
  std::string Get();

 private:
  std::mutex lock_;  // Guards all below.
  std::optional<std::uint64_t> lastUpdate_;
  std::string rootFolder_;
};
