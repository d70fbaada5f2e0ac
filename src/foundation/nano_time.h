// A stop watch.
#pragma once

#include <cstdint>

#include "platform/futex.h"

namespace synch {

/// Measures from its construction or its last Restart, on the monotonic clock. One thread.
class CNanoTime {
 public:
  CNanoTime() noexcept : start_(platform::MonotonicNanoseconds()) {}

  void Restart() noexcept { start_ = platform::MonotonicNanoseconds(); }
  std::int64_t ElapsedNanoseconds() const noexcept { return platform::MonotonicNanoseconds() - start_; }
  std::int64_t ElapsedMilliseconds() const noexcept { return ElapsedNanoseconds() / 1000000; }

 private:
  std::int64_t start_;
};

}  // namespace synch
