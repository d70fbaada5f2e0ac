// The bytes of messages: little-endian integers, and strings behind their length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "foundation/byte_buffer.h"

namespace mount_agent {

using bytes_t = io::byte_buffer_t;

/// Reads a request from front to back. Every step says whether it found what it wanted; the views point into the
/// request.
class CRequestReader {
 public:
  CRequestReader(const void* data, std::size_t length)
      : data_(static_cast<const std::uint8_t*>(data)), length_(length) {}

  template <typename T>
  bool Get(T& number) {
    static_assert(std::is_unsigned_v<T>);
    if (length_ < sizeof(T))
      return false;
    number = 0;
    for (std::size_t i = sizeof(T); i > 0; --i)
      number = static_cast<T>(number << 8U) | data_[i - 1];
    Skip(sizeof(T));
    return true;
  }
  /// A 32-bit length and that many bytes.
  bool GetCounted(std::string_view& bytes) {
    std::uint32_t count = 0;
    if (!Get(count) || count > length_)
      return false;
    bytes = {reinterpret_cast<const char*>(data_), count};
    Skip(count);
    return true;
  }
  bool IsAtEnd() const { return length_ == 0; }

 private:
  void Skip(std::size_t count) {
    data_ += count;
    length_ -= count;
  }

  const std::uint8_t* data_;
  std::size_t length_;
};

template <typename T>
void Put(bytes_t& out, T number) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = 0; i < sizeof(T); ++i)
    out.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(number) >> (8 * i)));
}

inline void PutCounted(bytes_t& out, std::string_view bytes) {
  Put(out, static_cast<std::uint32_t>(bytes.size()));
  const auto* const begin = reinterpret_cast<const std::uint8_t*>(bytes.data());
  out.insert(out.end(), begin, begin + bytes.size());
}

}  // namespace mount_agent
