// Decoding of one reply of a mount agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace remotevfs {

/// Reads once, from the front to the back. What is wanted and is not there throws "Invalid data stream".
class ReplyReader {
 public:
  explicit ReplyReader(std::span<const std::uint8_t> reply) : left_(reply) {}

  /// Little-endian.
  std::uint32_t U32();
  std::uint64_t U64();
  /// A length in 32 bits and so many bytes, in place.
  std::string_view String();

 private:
  std::span<const std::uint8_t> Take(std::size_t size);

  std::span<const std::uint8_t> left_;
};

}  // namespace remotevfs
