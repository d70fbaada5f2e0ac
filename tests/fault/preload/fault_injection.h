// Between the tests and the library that makes a service's system calls fail.
#pragma once

#include <atomic>
#include <cstdint>

namespace test {

/// Names the file that holds the SFaults.
inline constexpr const char* FaultsVariable = "KELVO_TEST_FAULTS";

/// Lies in a file that the test and the service have mapped; what the test writes applies from the next call on. All
/// zero: nothing fails.
struct SFaults {
  /// errno for calls on files whose path begins with `path`; 0 lets them through.
  std::atomic<int> readError;
  std::atomic<int> writeError;  ///< pwrite, write, ftruncate, fallocate.
  std::atomic<int> openError;   ///< open, openat, openat2, mkdirat.
  std::atomic<int> syncError;   ///< fsync, fdatasync.
  /// Only set while all of these are 0.
  char path[256];

  /// Of so many requests for memory one fails, at random; 0: none does.
  std::atomic<std::uint32_t> memoryOneIn;

  /// Added to the wall clock.
  std::atomic<std::int64_t> clockSeconds;

  /// How many calls failed, so that a test knows that its fault was met.
  std::atomic<std::uint64_t> failed;
};

}  // namespace test
