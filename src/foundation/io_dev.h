// Byte devices that records are written to and read from.
#pragma once

#include <cstddef>
#include <cstdint>

namespace io {

/// A blocking byte stream. Both operations move all bytes or throw, and return the length.
class io_dev_t {
 public:
  virtual ~io_dev_t() = default;
  virtual std::uint64_t Write(const void* data, std::uint64_t length) = 0;
  virtual std::uint64_t Read(void* data, std::uint64_t length) = 0;
};

/// Adds the two operations that never wait: true with the bytes moved in outCount, false when it would block.
class INonBlockingIoDev : public io_dev_t {
 public:
  virtual bool NonBlockingRead(void* data, std::uint64_t length, std::uint64_t& outCount) = 0;
  virtual bool NonBlockingWrite(const void* data, std::uint64_t length, std::uint64_t& outCount) = 0;
};

}  // namespace io
