#include "foundation/unnamed_semaphore.h"

#include "foundation/exc.h"

namespace synch {

namespace {

constexpr platform::error_t TooManyPosts = 298;

std::int32_t CheckedInitial(std::int32_t initial, std::int32_t maximum) {
  if (maximum < 1 || initial < 0 || initial > maximum) {
    throw exc::win_sys_exc_t(
        exc::FormatText("Cannot create a semaphore object. Initial value: [%1]. Maximum value: [%2].", initial,
                        maximum),
        platform::error::InvalidParameter);
  }
  return initial;
}

}  // namespace

CUnnamedSemaphore::CUnnamedSemaphore(std::int32_t initial, std::int32_t maximum)
    : maximum_(maximum), count_(CheckedInitial(initial, maximum)) {}

void CUnnamedSemaphore::Release(std::int32_t count) {
  if (count < 1)
    throw exc::win_sys_exc_t("Cannot release a semaphore object.", platform::error::InvalidParameter);
  std::int32_t current = count_.load(std::memory_order_relaxed);
  do {
    if (count > maximum_ - current)
      throw exc::win_sys_exc_t("Cannot release a semaphore object.", TooManyPosts);
  } while (
      !count_.compare_exchange_weak(current, current + count, std::memory_order_seq_cst, std::memory_order_relaxed));
  WakeSleepers(static_cast<std::size_t>(count));
}

bool CUnnamedSemaphore::TryTake() noexcept {
  std::int32_t current = count_.load(std::memory_order_seq_cst);
  while (current > 0) {
    if (count_.compare_exchange_weak(current, current - 1, std::memory_order_seq_cst, std::memory_order_seq_cst))
      return true;
  }
  return false;
}

}  // namespace synch
