// A counting semaphore inside the process.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/waitable.h"

namespace synch {

/// A count that Wait lowers by one and Release raises. Any thread.
class CUnnamedSemaphore final : public waitable_t {
 public:
  /// Throws win_sys_exc_t when initial is below 0 or above maximum, or maximum is below 1.
  CUnnamedSemaphore(std::int32_t initial, std::int32_t maximum);

  /// Throws win_sys_exc_t "Cannot release a semaphore object." and changes nothing when the count would pass the
  /// maximum, or count is below 1.
  void Release(std::int32_t count = 1);
  std::int32_t Count() const noexcept { return count_.load(std::memory_order_seq_cst); }
  bool TryTake() noexcept override;

 protected:
  bool IsAvailable() const noexcept override { return count_.load(std::memory_order_seq_cst) > 0; }

 private:
  const std::int32_t maximum_;
  std::atomic<std::int32_t> count_;
};

}  // namespace synch
