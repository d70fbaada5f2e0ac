// What share of time something was busy.
#pragma once

#include <cstdint>

namespace workload {

/// Gathers busy time over a period. The caller brings the time, in nanoseconds on a clock that never goes back. One
/// thread.
class CTimeRatioCounter {
 public:
  static constexpr std::uint32_t Full = 1000;

  /// The period begins.
  explicit constexpr CTimeRatioCounter(std::int64_t now) noexcept : start_(now) {}

  /// Busy from here; nothing when it is already.
  void Begin(std::int64_t now) noexcept {
    if (!isBusy_)
      busySince_ = now;
    isBusy_ = true;
  }
  /// Idle from here; nothing when it is already.
  void End(std::int64_t now) noexcept {
    if (isBusy_)
      busy_ += now - busySince_;
    isBusy_ = false;
  }

  std::int64_t Period(std::int64_t now) const noexcept { return now - start_; }
  /// The busy share of the period so far, 0 to Full; 0 for a period without length.
  std::uint32_t Permille(std::int64_t now) const noexcept {
    const std::int64_t period = Period(now);
    const std::int64_t busy = busy_ + (isBusy_ ? now - busySince_ : 0);
    // As floating point, so that no length of a period overflows.
    return period <= 0 ? 0 : static_cast<std::uint32_t>(static_cast<double>(busy) / static_cast<double>(period) * Full);
  }
  /// A new period; what is busy goes on being so.
  void Restart(std::int64_t now) noexcept {
    start_ = now;
    busySince_ = now;
    busy_ = 0;
  }

 private:
  std::int64_t start_;
  std::int64_t busySince_ = 0;
  std::int64_t busy_ = 0;
  bool isBusy_ = false;
};

}  // namespace workload
