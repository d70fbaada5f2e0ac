// Encoding of one reply or call (RFC 4506), with room for its record mark (RFC 5531, section 11).
#pragma once

#include <array>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "foundation/byte_buffer.h"
#include "foundation/io_dev.h"
#include "platform/kernel_pipe.h"

/// A piece of a finished record. The buffer is shared with whoever made it and is not changed any more.
struct SXdrSegment {
  boost::shared_ptr<const io::byte_buffer_t> buffer;
  std::size_t offset = 0;
  std::size_t length = 0;
  /// In the place of a buffer: a pipe that holds exactly the length.
  boost::shared_ptr<platform::kernel_pipe_t> pipe{};
};

/// Brings what the segment's pipe still holds into a buffer and lets go of the pipe; where there is no memory for it,
/// all stays as it is. A number other than 0: the pipe cannot be read.
platform::error_t BringIntoMemory(SXdrSegment& segment) noexcept;

/// Grows one message. The first four bytes are the room of the record mark, so the message begins at offset 4 and
/// Used() counts it. One thread at a time. The memory is taken with the first append, so a writer that is told by
/// Reserve() what will follow allocates once. A message that is never finished costs nothing but its memory.
class CXDRWriter {
 public:
  CXDRWriter() = default;
  CXDRWriter(const CXDRWriter&) = delete;
  CXDRWriter& operator=(const CXDRWriter&) = delete;

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
  /// its own and must not change any more. Throws runtime_exc_t when the buffer is shorter.
  void SharedVarLenData(boost::shared_ptr<const io::byte_buffer_t> data, std::size_t length);

  /// The same with bytes that are in the kernel, all that the pipe holds. For a writer that takes pipes.
  void PipedVarLenData(boost::shared_ptr<platform::kernel_pipe_t> pipe);
  /// Set by who will call TakeSegments and can send from pipes: the other ways to finish a record cannot.
  void TakePipes() noexcept { takesPipes_ = true; }
  bool TakesPipes() const noexcept { return takesPipes_; }
  /// Whether the record has such data, so that only TakeSegments gives it.
  bool HasPipes() const noexcept;
  /// Brings all such data into memory, as far as there is any. Throws win_sys_exc_t when a pipe cannot be read.
  void EmptyPipes();

  /// The five words that follow the xid of an accepted success (RFC 5531, section 9).
  void AcceptedReply();
  /// The one refusal there is: an accepted success whose verifier has flavour 3, without a body. Clients rely on it.
  void UnavailableReply();
  /// An accepted reply and NFS3ERR_ACCES, in whatever program.
  void AccessDeniedReply();
  /// The header of a call of the portmapper, with a fresh xid and without credentials.
  void PortmapCall(std::uint32_t procedure);

  /// The whole record, mark included, in one buffer. Throws runtime_exc_t when its size is no multiple of four or does
  /// not fit into the mark's 31 bits.
  void Finish(io::byte_buffer_t& out, bool lastFragment) const;
  /// The same as pieces that share this writer's memory; the writer is empty afterwards.
  std::vector<SXdrSegment> TakeSegments(bool lastFragment);
  /// The same to a device: the mark, then the rest piece by piece. Nothing is written when the size is wrong.
  void Send(io::io_dev_t& device, bool lastFragment) const;

  std::size_t Used() const { return used_ + sharedBytes_; }

 private:
  static constexpr std::size_t MarkSize = 4;

  /// Data that stands behind the first position bytes of the buffer.
  struct SShared {
    std::size_t position = 0;
    boost::shared_ptr<const io::byte_buffer_t> buffer;
    std::size_t length = 0;
    boost::shared_ptr<platform::kernel_pipe_t> pipe{};
  };

  /// Room for length bytes at the end, which count as used from then on.
  std::uint8_t* Append(std::size_t length);
  void Grow(std::size_t capacity);
  void Padding(std::size_t dataLength);
  /// The mark of the message as it stands.
  std::uint32_t Mark(bool lastFragment) const;
  /// Calls visit(bytes, length, shared) for each piece in order, the mark's room included. shared is null for pieces of
  /// the own buffer; bytes are null for those in a pipe.
  template <typename Visit>
  void ForEachPiece(Visit&& visit) const;

  boost::shared_ptr<io::byte_buffer_t> buffer_;  // Null until the first append.
  std::size_t used_ = MarkSize;
  std::vector<SShared> shared_;
  std::size_t sharedBytes_ = 0;
  bool takesPipes_ = false;
};

/// The capacity of a new writer, bytes, at most 1 MiB: the option XDRBufInitialSize. Set once at start.
void SetXdrBufInitialSize(std::uint32_t size);
