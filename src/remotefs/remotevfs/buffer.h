// What requests and replies are held in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace remotevfs {

/// A byte array with a capacity, all of which may be written to, and an actual size. One thread at a time. Movable.
class Buffer {
 public:
  explicit Buffer(std::size_t capacity = 0);

  std::size_t Capacity() const { return capacity_; }
  std::size_t ActualSize() const { return size_; }
  std::uint8_t* Data() { return bytes_.get(); }
  const std::uint8_t* Data() const { return bytes_.get(); }
  /// The bytes up to the actual size, and all that could be.
  std::span<const std::uint8_t> Bytes() const { return {bytes_.get(), size_}; }
  std::span<std::uint8_t> Room() { return {bytes_.get(), capacity_}; }

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
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t capacity_ = 0;
  std::size_t size_ = 0;
};

}  // namespace remotevfs
