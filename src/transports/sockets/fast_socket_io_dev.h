// Collects small writes into segments.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>

#include "foundation/byte_buffer.h"
#include "foundation/io_dev.h"

namespace io::net {

/// Writes go to a buffer, which is passed on whenever it is full; what would fill it several times goes past it, in
/// multiples of its size. One thread.
class CFastSocketIoDev : public io_dev_t {
 public:
  /// One Ethernet segment: a record's mark and the start of the record travel together.
  static constexpr std::size_t SegmentSize = 1460;

  /// size: bytes of the buffer, at least 1.
  explicit CFastSocketIoDev(boost::shared_ptr<io_dev_t> device, std::size_t size = SegmentSize);
  CFastSocketIoDev(const CFastSocketIoDev&) = delete;
  CFastSocketIoDev& operator=(const CFastSocketIoDev&) = delete;
  /// Writes what is left; a failure of that is logged, as a destructor cannot tell it. Flush first to see it.
  ~CFastSocketIoDev() override;

  std::uint64_t Write(const void* data, std::uint64_t length) override;
  /// Straight from the device.
  std::uint64_t Read(void* data, std::uint64_t length) override;
  void Flush();

 private:
  const boost::shared_ptr<io_dev_t> device_;
  io::byte_buffer_t buffer_;
  std::size_t fill_ = 0;
};

}  // namespace io::net
