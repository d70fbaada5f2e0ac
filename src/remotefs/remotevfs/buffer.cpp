#include "remotefs/remotevfs/buffer.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "foundation/exc.h"

namespace remotevfs {
namespace {

constexpr std::size_t LeastCapacity = 32;

template <typename T>
std::array<std::uint8_t, sizeof(T)> LittleEndian(T number) {
  std::array<std::uint8_t, sizeof(T)> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<std::uint8_t>(number >> (8 * i));
  return bytes;
}

}  // namespace

Buffer::Buffer(std::size_t capacity) {
  Reserve(capacity);
}

io::byte_buffer_t Buffer::Release() {
  size_ = 0;
  return std::move(bytes_);
}

void Buffer::SetActualSize(std::size_t size) {
  if (size > Capacity())
    throw exc::runtime_exc_t("Buffer::SetActualSize error.");
  size_ = size;
}

void Buffer::Reserve(std::size_t capacity) {
  if (capacity <= Capacity())
    return;
  // What lies behind the actual size is not worth a copy.
  io::byte_buffer_t bytes(capacity);
  std::copy_n(bytes_.begin(), size_, bytes.begin());
  bytes_ = std::move(bytes);
}

void Buffer::Append(std::span<const std::uint8_t> data) {
  if (data.empty())
    return;
  if (data.size() > Capacity() - size_) {
    std::size_t capacity = std::max(Capacity(), LeastCapacity);
    while (capacity - size_ < data.size())
      capacity += capacity / 2;
    Reserve(capacity);
  }
  std::memcpy(bytes_.data() + size_, data.data(), data.size());
  size_ += data.size();
}

void Buffer::AppendU32(std::uint32_t number) {
  Append(LittleEndian(number));
}

void Buffer::AppendU64(std::uint64_t number) {
  Append(LittleEndian(number));
}

void Buffer::AppendString(std::string_view text) {
  AppendU32(static_cast<std::uint32_t>(text.size()));
  if (!text.empty())
    Append({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

}  // namespace remotevfs
