// What requests and replies are held in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>

#include "foundation/byte_buffer.h"

namespace remotevfs {

/// A byte array with a capacity, all of which may be written to, and an actual size. One thread at a time. Movable.
class Buffer {
 public:
  explicit Buffer(std::size_t capacity = 0);
  /// Memory that is there already; what it holds does not count.
  explicit Buffer(io::byte_buffer_t memory) : bytes_(std::move(memory)) {}
  Buffer(Buffer&& other) noexcept : bytes_(std::move(other.bytes_)), size_(std::exchange(other.size_, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    bytes_ = std::move(other.bytes_);
    size_ = std::exchange(other.size_, 0);
    return *this;
  }

  std::size_t Capacity() const { return bytes_.size(); }
  std::size_t ActualSize() const { return size_; }
  std::uint8_t* Data() { return bytes_.data(); }
  const std::uint8_t* Data() const { return bytes_.data(); }
  /// The bytes up to the actual size, and all that could be.
  std::span<const std::uint8_t> Bytes() const { return {bytes_.data(), size_}; }
  std::span<std::uint8_t> Room() { return bytes_; }
  /// The memory, with the bytes at its beginning; the buffer is empty then.
  io::byte_buffer_t Release();

  /// Throws "Buffer::SetActualSize error." for more than the capacity.
  void SetActualSize(std::size_t size);
  /// Makes the capacity at least this large; the bytes up to the actual size stay.
  void Reserve(std::size_t capacity);
  /// Grows by halves of the capacity, from at least 32, until the data fits. The data must not lie in this buffer.
  void Append(std::span<const std::uint8_t> data);
  /// Little-endian.
  void AppendU32(std::uint32_t number);
  void AppendU64(std::uint64_t number);
  /// Its length in 32 bits and its bytes.
  void AppendString(std::string_view text);
  void Clear() { size_ = 0; }

 private:
  io::byte_buffer_t bytes_;
  std::size_t size_ = 0;
};

}  // namespace remotevfs
