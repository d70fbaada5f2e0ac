// Decoding of one received record (RFC 4506).
#pragma once

#include <array>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "foundation/byte_buffer.h"

/// Reads a record once, from the front to the back. One thread at a time; may move between threads.
/// Every operation throws on too few bytes and leaves what it fills undefined then. A length above 0xFFFFFFFC throws
/// std::bad_alloc and touches no memory.
class CXDRReader {
 public:
  CXDRReader() = default;
  /// A buffer of this size to be received into.
  explicit CXDRReader(std::size_t size);
  /// A record that was received elsewhere; shared with whoever else holds it.
  explicit CXDRReader(boost::shared_ptr<io::byte_buffer_t> record);

  /// The whole record, to be filled before the first read.
  std::span<std::uint8_t> Record();
  /// Keeps the record's bytes alive, for views that outlive the reader.
  const boost::shared_ptr<io::byte_buffer_t>& SharedRecord() const { return data_; }

  std::uint32_t UInt();
  std::uint64_t UInt64();
  bool Bool() { return UInt() != 0; }
  /// Into a vector of exactly the announced length; a length of 0 leaves it as it stands.
  void VarLenData(io::byte_buffer_t& out);
  std::string String();
  /// The bytes of an opaque in place, valid as long as the record lives; empty for a length of 0.
  std::span<const std::uint8_t> VarLenView();
  std::array<std::uint8_t, 8> Fixed8();

  std::size_t Remaining() const;

 private:
  boost::shared_ptr<io::byte_buffer_t> data_;
  std::uint32_t position_ = 0;
};
