#include "platform/guid.h"

#include <sys/random.h>

#include <cstdlib>

namespace platform {
namespace {

constexpr std::string_view Shape = "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";

int HexValue(char digit) {
  if (digit >= '0' && digit <= '9')
    return digit - '0';
  if (digit >= 'a' && digit <= 'f')
    return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F')
    return digit - 'A' + 10;
  return -1;
}

}  // namespace

std::string GuidToText(const GUID& guid) {
  constexpr char Digits[] = "0123456789abcdef";
  std::string text(Shape);
  std::size_t nibble = 0;
  for (char& place : text) {
    if (place != 'x')
      continue;
    const std::uint8_t byte = guid.bytes[nibble / 2];
    place = Digits[nibble % 2 == 0 ? byte >> 4 : byte & 0xF];
    ++nibble;
  }
  return text;
}

std::optional<GUID> GuidFromText(std::string_view text) {
  if (text.size() != Shape.size())
    return std::nullopt;
  GUID guid;
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (Shape[i] != 'x') {
      if (text[i] != Shape[i])
        return std::nullopt;
      continue;
    }
    const int value = HexValue(text[i]);
    if (value < 0)
      return std::nullopt;
    std::uint8_t& byte = guid.bytes[nibble / 2];
    byte = static_cast<std::uint8_t>(byte << 4 | value);
    ++nibble;
  }
  return guid;
}

GUID NewGuid() {
  GUID guid;
  // 16 bytes never come short once the pool is up; without it there is no identity to hand out.
  if (getrandom(guid.bytes.data(), guid.bytes.size(), 0) != static_cast<ssize_t>(guid.bytes.size()))
    std::abort();
  guid.bytes[6] = static_cast<std::uint8_t>((guid.bytes[6] & 0x0F) | 0x40);
  guid.bytes[8] = static_cast<std::uint8_t>((guid.bytes[8] & 0x3F) | 0x80);
  return guid;
}

}  // namespace platform
