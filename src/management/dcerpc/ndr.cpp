#include "management/dcerpc/ndr.h"

#include <limits>

namespace dcerpc {
namespace {

constexpr std::size_t UnitSize = sizeof(char16_t);

std::size_t PaddingTo(std::size_t position, std::size_t alignment) {
  return (alignment - position % alignment) % alignment;
}

[[noreturn]] void Refuse(const char* text) {
  throw fault_exc_t(text, fault::BadStubData);
}

char16_t UnitAt(bytes_view_t bytes, std::size_t index, byte_order_t order) {
  const unsigned first = bytes[index * UnitSize];
  const unsigned second = bytes[index * UnitSize + 1];
  return static_cast<char16_t>(order == byte_order_t::Little ? second << 8 | first : first << 8 | second);
}

}  // namespace

bytes_view_t CNdrReader::Take(std::size_t size, std::size_t alignment) {
  const std::size_t padding = PaddingTo(position_, alignment);
  if (Remaining() < padding || Remaining() - padding < size)
    Refuse("The stub data end before their last item.");
  position_ += padding + size;
  return stub_.subspan(position_ - size, size);
}

std::uint8_t CNdrReader::Byte() {
  return Take(1, 1)[0];
}

std::uint32_t CNdrReader::UInt() {
  const bytes_view_t bytes = Take(4, 4);
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i)
    value = value << 8 | bytes[order_ == byte_order_t::Little ? bytes.size() - 1 - i : i];
  return value;
}

std::u16string CNdrReader::String() {
  const std::uint32_t capacity = UInt();
  const std::uint32_t offset = UInt();
  const std::uint32_t count = UInt();
  if (offset != 0 || count == 0 || count > capacity)
    Refuse("The counts of a string do not fit together.");
  if (count > Remaining() / UnitSize)
    Refuse("A string is announced that is longer than the stub data.");
  const bytes_view_t bytes = Take(count * UnitSize, 1);
  if (UnitAt(bytes, count - 1, order_) != 0)
    Refuse("A string has no terminator.");
  std::u16string text;
  text.reserve(count - 1);
  for (std::size_t i = 0; i + 1 < count; ++i) {
    const char16_t unit = UnitAt(bytes, i, order_);
    if (unit == 0)
      break;
    text.push_back(unit);
  }
  return text;
}

std::optional<std::u16string> CNdrReader::UniqueString() {
  if (!IsPresent())
    return std::nullopt;
  return String();
}

bytes_view_t CNdrReader::ByteArray(std::uint32_t size) {
  if (UInt() != size)
    Refuse("An array is not as long as its length tells.");
  return Take(size, 1);
}

void CNdrWriter::Align(std::size_t alignment) {
  stub_.resize(stub_.size() + PaddingTo(stub_.size(), alignment));
}

void CNdrWriter::Byte(std::uint8_t value) {
  stub_.push_back(value);
}

void CNdrWriter::UInt(std::uint32_t value) {
  Align(4);
  for (int shift = 0; shift < 32; shift += 8)
    stub_.push_back(static_cast<std::uint8_t>(value >> shift));
}

void CNdrWriter::Length(std::size_t count) {
  if (count > std::numeric_limits<std::uint32_t>::max())
    throw exc::runtime_exc_t("A text or an array is too long to be sent. Length: [%1].", count);
  UInt(static_cast<std::uint32_t>(count));
}

void CNdrWriter::String(std::u16string_view text) {
  text = text.substr(0, text.find(u'\0'));
  const std::size_t count = text.size() + 1;
  Length(count);
  UInt(0);
  Length(count);
  stub_.reserve(stub_.size() + count * UnitSize);
  for (const char16_t unit : text) {
    stub_.push_back(static_cast<std::uint8_t>(unit));
    stub_.push_back(static_cast<std::uint8_t>(unit >> 8));
  }
  stub_.resize(stub_.size() + UnitSize);
}

void CNdrWriter::ByteArray(bytes_view_t bytes) {
  Length(bytes.size());
  stub_.insert(stub_.end(), bytes.begin(), bytes.end());
}

}  // namespace dcerpc
