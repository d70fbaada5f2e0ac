// Decoding of one received record (RFC 4506).
#pragma once

#include <array>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "foundation/byte_buffer.h"
#include "platform/kernel_pipe.h"

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
  /// A record whose last bytes are still in the kernel. Reading any of them brings all of them into memory; views of
  /// what was read before stay good.
  CXDRReader(boost::shared_ptr<io::byte_buffer_t> record, boost::shared_ptr<platform::kernel_pipe_t> rest);

  /// The whole record, to be filled before the first read.
  std::span<std::uint8_t> Record();

  std::uint32_t UInt();
  std::uint64_t UInt64();
  bool Bool() { return UInt() != 0; }
  /// Into a vector of exactly the announced length; a length of 0 leaves it as it stands.
  void VarLenData(io::byte_buffer_t& out);
  std::string String();
  /// The bytes of an opaque in place, valid as long as the record lives; empty for a length of 0.
  std::span<const std::uint8_t> VarLenView() { return View(OpaqueLength()); }
  /// The same for the last item of a record, behind which nothing is read: what of it is still in the kernel may stay
  /// there, and is Rest() then.
  std::span<const std::uint8_t> LastVarLenView();
  /// Bytes of the record that are still in the kernel; null when there are none.
  platform::kernel_pipe_t* Rest() const { return rest_ != nullptr && rest_->Held() != 0 ? rest_.get() : nullptr; }
  /// Brings them into memory.
  void Gather();
  /// All of what LastVarLenView gave the begin of, in memory.
  std::span<const std::uint8_t> GatherLastView();
  /// Tells whoever received the record that of one like it the bytes of LastVarLenView may be left in the kernel.
  void WantRest() { wantedRest_ = lastViewAt_; }
  /// Where these begin; 0 when nobody wants them there.
  std::uint32_t WantedRest() const { return wantedRest_; }
  std::array<std::uint8_t, 8> Fixed8();

  std::size_t Remaining() const;

 private:
  std::size_t InMemory() const { return data_ == nullptr ? 0 : data_->size() - position_; }
  /// Makes sure that so many bytes are in memory, of those that remain.
  void Need(std::size_t length) {
    if (length > InMemory())
      Gather();
  }
  std::uint32_t OpaqueLength();
  std::span<const std::uint8_t> View(std::uint32_t length);

  boost::shared_ptr<io::byte_buffer_t> data_;
  boost::shared_ptr<platform::kernel_pipe_t> rest_;
  boost::shared_ptr<io::byte_buffer_t> ungathered_;  ///< What data_ was before, for views of it.
  std::uint32_t position_ = 0;
  std::uint32_t lastViewAt_ = 0;
  std::uint32_t lastViewSize_ = 0;
  std::uint32_t wantedRest_ = 0;
};
