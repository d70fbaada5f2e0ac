#include "kelvo-nfsctl/sizes.h"

#include <array>
#include <cmath>
#include <limits>

#include "kelvo-nfsctl/usage_error.h"
#include "platform/text.h"

namespace nfsctl {
namespace {

constexpr std::string_view Prefixes = "kmgtpe";

[[noreturn]] void Refuse(std::string_view text) {
  throw usage_error_t("[" + std::string(text) + "] is no size; write bytes, or a number with a unit such as 10GiB.");
}

/// Bytes in one unit.
std::uint64_t ParseUnit(std::string_view unit, std::string_view text) {
  const std::string folded = platform::FoldAscii(unit);
  if (folded.empty() || folded == "b")
    return 1;
  const std::size_t power = Prefixes.find(folded[0]);
  const std::string_view tail = std::string_view(folded).substr(1);
  if (power == std::string_view::npos || (!tail.empty() && tail != "ib" && tail != "b"))
    Refuse(text);
  std::uint64_t bytes = 1;
  for (std::size_t i = 0; i <= power; ++i)
    bytes *= tail == "b" ? 1000 : 1024;
  return bytes;
}

}  // namespace

std::uint64_t ParseSize(std::string_view text) {
  const std::size_t numberEnd = std::min(text.find_first_not_of("0123456789."), text.size());
  const std::string_view number = text.substr(0, numberEnd);
  const std::uint64_t unit = ParseUnit(platform::Trim(text.substr(numberEnd)), text);
  const std::size_t point = std::min(number.find('.'), number.size());
  const auto whole = platform::ParseU64(number.substr(0, point));
  if (!whole || *whole > std::numeric_limits<std::uint64_t>::max() / unit)
    Refuse(text);
  std::uint64_t bytes = *whole * unit;
  if (point == number.size())
    return bytes;
  constexpr std::size_t MaxDigits = 9;
  const std::string_view digits = number.substr(point + 1);
  const auto fraction = platform::ParseU64(digits);
  if (!fraction || digits.size() > MaxDigits)
    Refuse(text);
  const long double scale = std::pow(10.0L, static_cast<long double>(digits.size()));
  const auto rest =
      static_cast<std::uint64_t>(static_cast<long double>(unit) * static_cast<long double>(*fraction) / scale);
  if (rest > std::numeric_limits<std::uint64_t>::max() - bytes)
    Refuse(text);
  bytes += rest;
  return bytes;
}

std::string FormatSize(std::uint64_t bytes) {
  std::string exact = std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  constexpr std::array<const char*, 6> Units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024)
    return exact;
  std::size_t power = 0;
  std::uint64_t unit = 1024;
  while (power + 1 < Units.size() && bytes / unit >= 1024) {
    unit *= 1024;
    ++power;
  }
  // Two digits behind the point, cut and not rounded: a size is never told larger than it is.
  const auto hundredths =
      static_cast<std::uint64_t>(static_cast<long double>(bytes % unit) * 100.0L / static_cast<long double>(unit));
  std::string text = std::to_string(bytes / unit);
  if (hundredths != 0) {
    text += '.';
    text += std::to_string(hundredths / 10);
    if (hundredths % 10 != 0)
      text += std::to_string(hundredths % 10);
  }
  return text + " " + Units.at(power) + " (" + exact + ")";
}

}  // namespace nfsctl
