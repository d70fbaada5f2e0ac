// Encoding of one reply or call (RFC 4506), with room for its record mark (RFC 5531, section 11).
#pragma once

#include <boost/shared_ptr.hpp>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "foundation/byte_buffer.h"
#include "foundation/io_dev.h"

/// A piece of a finished record. The buffer is shared with whoever made it and is not changed any more.
struct SXdrSegment {
  boost::shared_ptr<const io::byte_buffer_t> buffer;
  std::size_t offset = 0;
  std::size_t length = 0;
};

/// Grows one message. The first four bytes are the room of the record mark, so the message begins at offset 4 and
/// Used() counts it. One thread at a time.
class CXDRWriter {
 public:
  CXDRWriter();

  /// Sizes the buffer once for what will follow; never shrinks it.
  void Reserve(std::size_t moreBytes);

  void Data(const void* data, std::size_t length);
  void UInt(std::uint32_t value);
  /// Only the low byte of the value counts.
  void Bool(std::uint32_t value);
  void VarLenData(const void* data, std::size_t length);
  /// Up to the text's first zero byte.
  void String(std::string_view text);
  void Fixed8(const std::array<std::uint8_t, 8>& data);
  /// As VarLenData of the buffer's first length bytes, without copying them: the buffer goes out as a segment of
  /// its own and must not change any more.
  void SharedVarLenData(boost::shared_ptr<const io::byte_buffer_t> data, std::size_t length);

  void AcceptedReply();
  void UnavailableReply();
  void AccessDeniedReply();
  /// The header of a call of the portmapper, with a fresh xid.
  void PortmapCall(std::uint32_t procedure);

  /// The whole record, mark included, in one buffer. Throws runtime_exc_t when its size is no multiple of four.
  void Finish(io::byte_buffer_t& out, bool lastFragment) const;
  /// The same as pieces that share this writer's memory; the writer is empty afterwards.
  std::vector<SXdrSegment> TakeSegments(bool lastFragment);
  /// The same to a device: first the mark, then the rest. Nothing is written when the size is wrong.
  void Send(io::io_dev_t& device, bool lastFragment) const;

  std::size_t Used() const { return used_ + sharedBytes_; }

 private:
  /// Data that stands behind the first position bytes of the buffer.
  struct SShared {
    std::size_t position = 0;
    boost::shared_ptr<const io::byte_buffer_t> buffer;
    std::size_t length = 0;
  };

  std::uint32_t CheckedSize() const;

  boost::shared_ptr<io::byte_buffer_t> buffer_;
  std::size_t used_ = 0;
  std::vector<SShared> shared_;
  std::size_t sharedBytes_ = 0;
};

/// The capacity of a new writer, bytes: the option XDRBufInitialSize. Set once at start, before writers exist.
void SetXdrBufInitialSize(std::uint32_t size);
