#include "management/version_compatibility.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "foundation/exc.h"
#include "platform/text.h"

namespace {

/// The most and the least significant word.
using words_t = std::pair<std::uint32_t, std::uint32_t>;

std::optional<words_t> Parse(std::string_view text) {
  std::array<std::uint32_t, 4> parts{};
  for (std::size_t index = 0; index < parts.size(); ++index) {
    const std::size_t point = text.find('.');
    const bool isLast = index + 1 == parts.size();
    if ((point == std::string_view::npos) != isLast)
      return std::nullopt;
    const std::optional<std::uint32_t> number = platform::ParseU32(text.substr(0, point));
    if (!number)
      return std::nullopt;
    parts[index] = *number;
    if (!isLast)
      text.remove_prefix(point + 1);
  }
  constexpr unsigned HalfWord = 16;
  return words_t{parts[0] << HalfWord | parts[1], parts[2] << HalfWord | parts[3]};
}

words_t GetWords(const std::string& version) {
  const std::optional<words_t> words = Parse(version);
  if (!words)
    throw exc::runtime_exc_t("Failed to parse version string '%1'.", version);
  return *words;
}

}  // namespace

bool IsConsoleCompatible(const std::string& consoleVersion, const std::string& moduleVersion) {
  const words_t console = GetWords(consoleVersion);
  return console >= GetWords(moduleVersion);
}
