#include "platform/file_attributes.h"

#include <limits>

namespace platform {

FILETIME FiletimeFromTimespec(const timespec& time) noexcept {
  constexpr auto Last =
      static_cast<std::int64_t>(std::numeric_limits<FILETIME>::max() / 10000000U - FiletimeEpochSeconds);
  if (time.tv_sec < -static_cast<std::int64_t>(FiletimeEpochSeconds))
    return 0;
  if (time.tv_sec >= Last)
    return std::numeric_limits<FILETIME>::max();
  const auto seconds = static_cast<std::uint64_t>(time.tv_sec + static_cast<std::int64_t>(FiletimeEpochSeconds));
  return seconds * 10000000U + static_cast<std::uint64_t>(time.tv_nsec) / 100U;
}

timespec TimespecFromFiletime(FILETIME time) noexcept {
  timespec result{};
  result.tv_sec = static_cast<time_t>(time / 10000000U) - static_cast<time_t>(FiletimeEpochSeconds);
  result.tv_nsec = static_cast<long>(time % 10000000U * 100U);
  return result;
}

}  // namespace platform
