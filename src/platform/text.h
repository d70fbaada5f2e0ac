// Text in UTF-8: comparison without regard to ASCII case, paths, conversion, numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// Lower case for A to Z; every other byte stays.
constexpr char FoldAscii(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
std::string FoldAscii(std::string_view text);

/// Equal for texts that are equal without regard to ASCII case. Whoever does not know the seed cannot choose texts that
/// meet.
std::uint64_t HashIgnoringCase(std::string_view text, std::uint64_t seed) noexcept;
/// Another one each time, which nobody can guess.
std::uint64_t NewHashSeed();

bool EqualIgnoringCase(std::string_view left, std::string_view right) noexcept;
/// Below, at or above zero, as the folded bytes compare (as unsigned).
int CompareIgnoringCase(std::string_view left, std::string_view right) noexcept;
/// The first eight bytes, folded: of two texts that differ in it, the lower one has the lower number.
std::uint64_t FoldedBegin(std::string_view text) noexcept;

/// Order of a map whose keys are equal when they differ only by ASCII case.
struct less_ignoring_case_t {
  using is_transparent = void;
  bool operator()(std::string_view left, std::string_view right) const noexcept {
    return CompareIgnoringCase(left, right) < 0;
  }
};

/// RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF. A zero byte is valid.
bool IsValidUtf8(std::string_view text) noexcept;

/// The components between `/` and `\`; empty ones are dropped. The views point into the text.
std::vector<std::string_view> SplitPath(std::string_view path);

inline constexpr std::string_view Blanks = " \t\n\r";
/// The text without the given characters at both ends.
std::string_view Trim(std::string_view text, std::string_view characters = Blanks) noexcept;

/// Nothing for text that is not valid UTF-8.
std::optional<std::u16string> Utf16FromUtf8(std::string_view text);
/// Nothing when a surrogate stands alone.
std::optional<std::string> Utf8FromUtf16(std::u16string_view text);

/// Decimal digits alone, at least one, leading zeros allowed: no sign, no blanks. Nothing for anything else and for
/// a number past the type.
std::optional<std::uint32_t> ParseU32(std::string_view text) noexcept;
std::optional<std::uint64_t> ParseU64(std::string_view text) noexcept;

}  // namespace platform
