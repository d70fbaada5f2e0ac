// Integers at a place in memory, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace mount_agent {

template <typename T>
T GetAt(const std::uint8_t* at) {
  static_assert(std::is_unsigned_v<T>);
  T number = 0;
  for (std::size_t i = sizeof(T); i > 0; --i)
    number = static_cast<T>(number << 8U) | at[i - 1];
  return number;
}

template <typename T>
void PutAt(std::uint8_t* at, std::common_type_t<T> number) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = 0; i < sizeof(T); ++i)
    at[i] = static_cast<std::uint8_t>(number >> (8 * i));
}

}  // namespace mount_agent
