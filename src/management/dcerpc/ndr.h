// Network Data Representation, version 2.0 (C706, chapter 14): the part of it that our operations need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "management/dcerpc/rpc_interface.h"

namespace dcerpc {

/// Reads one stub from the front to the back; the bytes outlive the reader. Every item is aligned to its size first,
/// from the start of the stub; padding may hold anything. Nothing is sized by a count before that many bytes are known
/// to be there. Each operation throws fault_exc_t with BadStubData for a stub that does not hold what is asked for.
class CNdrReader {
 public:
  CNdrReader(bytes_view_t stub, byte_order_t order) : stub_(stub), order_(order) {}

  std::uint8_t Byte();
  std::uint32_t UInt();
  void Align(std::size_t alignment) { Take(0, alignment); }
  /// A referent id: whether the pointer points at anything.
  bool IsPresent() { return UInt() != 0; }
  /// A conformant and varying array of 16-bit units that ends with a zero; the text before its first zero.
  std::u16string String();
  /// A pointer and, at once, the string behind it.
  std::optional<std::u16string> UniqueString();
  /// A conformant array of exactly this many bytes; in place.
  bytes_view_t ByteArray(std::uint32_t size);

  std::size_t Remaining() const { return stub_.size() - position_; }

 private:
  bytes_view_t Take(std::size_t size, std::size_t alignment);

  bytes_view_t stub_;
  std::size_t position_ = 0;
  byte_order_t order_;
};

/// Writes one stub, little-endian; filler is zero.
class CNdrWriter {
 public:
  void Byte(std::uint8_t value);
  void UInt(std::uint32_t value);
  /// A number of items. Throws exc::runtime_exc_t for one that does not fit.
  void Length(std::size_t count);
  /// A referent id, or null.
  void Pointer(bool present, std::uint32_t id) { UInt(present ? id : 0); }
  /// The terminator is added here; a zero within the text ends it. Throws as Length does.
  void String(std::u16string_view text);
  /// The conformant array with its count. Throws as Length does.
  void ByteArray(bytes_view_t bytes);
  void Align(std::size_t alignment);

  const bytes_t& Stub() const { return stub_; }
  bytes_t Take() { return std::move(stub_); }

 private:
  bytes_t stub_;
};

}  // namespace dcerpc
