// Whether several requests are under way at a time.
#pragma once

#include <algorithm>
#include <atomic>

namespace synch {

/// Counts the last requests: one that comes while another one is under way twice as much as one that does not. From
/// Crowded on several are taken to be under way at a time, until nothing is left of that. Told by one thread at a time;
/// any may ask.
class crowd_gauge_t {
 public:
  static constexpr unsigned Most = 32;     ///< Is counted no further.
  static constexpr unsigned Crowded = 16;  ///< Count from which several are under way.

  /// Another request has come; isAlone: while none was under way.
  void Tell(bool isAlone) noexcept {
    count_ = isAlone ? count_ - std::min(count_, 1U) : std::min(count_ + 2, Most);
    if (count_ >= Crowded || count_ == 0) {
      isCrowded_.store(count_ != 0, std::memory_order_relaxed);
    }
  }
  /// Whether several are under way at a time.
  bool IsCrowded() const noexcept { return isCrowded_.load(std::memory_order_relaxed); }

 private:
  unsigned count_ = 0;
  std::atomic<bool> isCrowded_{false};  ///< Written by who tells, read by any thread.
};

}  // namespace synch
