#include "platform/text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstring>

#include "platform/guid.h"

namespace platform {
namespace {

constexpr std::uint32_t Invalid = 0xFFFFFFFF;

bool IsContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

/// The code point at `position`, which moves behind it; Invalid for anything but a well-formed one.
std::uint32_t NextCodePoint(std::string_view text, std::size_t& position) {
  const auto lead = static_cast<unsigned char>(text[position]);
  std::size_t length = 1;
  std::uint32_t lowest = 0;
  std::uint32_t point = lead;
  if (lead >= 0xF8 || IsContinuation(lead))
    return Invalid;
  if (lead >= 0xF0) {
    length = 4, lowest = 0x10000, point = lead & 0x07U;
  } else if (lead >= 0xE0) {
    length = 3, lowest = 0x800, point = lead & 0x0FU;
  } else if (lead >= 0xC0) {
    length = 2, lowest = 0x80, point = lead & 0x1FU;
  }
  if (text.size() - position < length)
    return Invalid;
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[position + i]);
    if (!IsContinuation(byte))
      return Invalid;
    point = point << 6 | (byte & 0x3FU);
  }
  if (point < lowest || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
    return Invalid;
  position += length;
  return point;
}

void AppendUtf8(std::string& text, std::uint32_t point) {
  const auto put = [&text](std::uint32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (point < 0x80) {
    put(point);
  } else if (point < 0x800) {
    put(0xC0 | point >> 6);
    put(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    put(0xE0 | point >> 12);
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  } else {
    put(0xF0 | point >> 18);
    put(0x80 | (point >> 12 & 0x3F));
    put(0x80 | (point >> 6 & 0x3F));
    put(0x80 | (point & 0x3F));
  }
}

/// Eight bytes as a number that compares as they do.
std::uint64_t LoadWord(const char* bytes) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

/// FoldAscii of each of the eight bytes.
std::uint64_t FoldWord(std::uint64_t word) noexcept {
  constexpr std::uint64_t EachByte = 0x0101010101010101;
  constexpr std::uint64_t HighBits = 0x80 * EachByte;
  const std::uint64_t low = word & ~HighBits;
  const std::uint64_t fromA = low + (0x80 - 'A') * EachByte;
  const std::uint64_t pastZ = low + (0x7F - 'Z') * EachByte;
  return word | ((fromA & ~pastZ & ~word & HighBits) >> 2);
}

template <typename Number>
std::optional<Number> ParseDecimal(std::string_view text) noexcept {
  if (text.empty() || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  Number number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc())
    return std::nullopt;
  return number;
}

}  // namespace

std::string FoldAscii(std::string_view text) {
  std::string folded(text);
  for (char& c : folded)
    c = FoldAscii(c);
  return folded;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) noexcept {
  return left.size() == right.size() && CompareIgnoringCase(left, right) == 0;
}

std::uint64_t FoldedBegin(std::string_view text) noexcept {
  std::array<char, sizeof(std::uint64_t)> begin{};
  std::copy_n(text.begin(), std::min(text.size(), begin.size()), begin.begin());
  return FoldWord(LoadWord(begin.data()));
}

int CompareIgnoringCase(std::string_view left, std::string_view right) noexcept {
  const std::size_t common = std::min(left.size(), right.size());
  std::size_t at = 0;
  for (; at + sizeof(std::uint64_t) <= common; at += sizeof(std::uint64_t)) {
    const std::uint64_t leftWord = LoadWord(left.data() + at);
    const std::uint64_t rightWord = LoadWord(right.data() + at);
    if (leftWord == rightWord)
      continue;
    const std::uint64_t a = FoldWord(leftWord);
    const std::uint64_t b = FoldWord(rightWord);
    if (a != b)
      return a < b ? -1 : 1;
  }
  for (; at < common; ++at) {
    const auto a = static_cast<unsigned char>(FoldAscii(left[at]));
    const auto b = static_cast<unsigned char>(FoldAscii(right[at]));
    if (a != b)
      return a < b ? -1 : 1;
  }
  if (left.size() == right.size())
    return 0;
  return left.size() < right.size() ? -1 : 1;
}

std::uint64_t HashIgnoringCase(std::string_view text, std::uint64_t seed) noexcept {
  __extension__ using product_t = unsigned __int128;
  constexpr std::uint64_t Odd = 0x9E3779B97F4A7C15;
  // Neither the begin nor the factor may be known: with a known factor, differences of words that cancel each other can
  // be told without the begin.
  const auto first = product_t{seed ^ 0x2545F4914F6CDD1D} * Odd;
  const std::uint64_t factor = (static_cast<std::uint64_t>(first >> 64) ^ static_cast<std::uint64_t>(first)) | 1;
  std::uint64_t hash = seed ^ text.size();
  const auto mix = [&hash, factor](std::uint64_t word) {
    const auto product = product_t{hash ^ word} * factor;
    hash = static_cast<std::uint64_t>(product >> 64) ^ static_cast<std::uint64_t>(product);
  };
  std::size_t at = 0;
  for (; at + sizeof(std::uint64_t) <= text.size(); at += sizeof(std::uint64_t))
    mix(FoldWord(LoadWord(text.data() + at)));
  std::uint64_t rest = 0;
  for (; at < text.size(); ++at)
    rest = rest << 8 | static_cast<unsigned char>(FoldAscii(text[at]));
  mix(rest);
  mix(seed);
  return hash;
}

std::uint64_t NewHashSeed() {
  const GUID random = NewGuid();
  std::uint64_t seed = 0;
  std::memcpy(&seed, random.bytes.data(), sizeof seed);
  return seed;
}

bool IsValidUtf8(std::string_view text) noexcept {
  std::size_t position = 0;
  while (position < text.size()) {
    if (static_cast<unsigned char>(text[position]) < 0x80) {
      ++position;
    } else if (NextCodePoint(text, position) == Invalid) {
      return false;
    }
  }
  return true;
}

std::vector<std::string_view> SplitPath(std::string_view path) {
  std::vector<std::string_view> components;
  std::size_t start = 0;
  while (start < path.size()) {
    const std::size_t end = std::min(path.find_first_of("/\\", start), path.size());
    if (end > start)
      components.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

std::string_view Trim(std::string_view text, std::string_view characters) noexcept {
  const std::size_t first = text.find_first_not_of(characters);
  if (first == std::string_view::npos)
    return text.substr(0, 0);
  return text.substr(first, text.find_last_not_of(characters) - first + 1);
}

std::optional<std::u16string> Utf16FromUtf8(std::string_view text) {
  std::u16string result;
  result.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const std::uint32_t point = NextCodePoint(text, position);
    if (point == Invalid)
      return std::nullopt;
    if (point < 0x10000) {
      result.push_back(static_cast<char16_t>(point));
    } else {
      result.push_back(static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)));
      result.push_back(static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
    }
  }
  return result;
}

std::optional<std::string> Utf8FromUtf16(std::u16string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t point = text[i];
    if (point >= 0xD800 && point <= 0xDFFF) {
      const bool paired = point < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
      if (!paired)
        return std::nullopt;
      point = 0x10000 + ((point - 0xD800) << 10) + (text[++i] - 0xDC00U);
    }
    AppendUtf8(result, point);
  }
  return result;
}

std::optional<std::uint32_t> ParseU32(std::string_view text) noexcept {
  return ParseDecimal<std::uint32_t>(text);
}

std::optional<std::uint64_t> ParseU64(std::string_view text) noexcept {
  return ParseDecimal<std::uint64_t>(text);
}

}  // namespace platform
