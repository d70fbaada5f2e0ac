// A socket as a byte device, and a buffer that lets small writes share a segment.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>

#include "foundation/byte_buffer.h"
#include "foundation/io_dev.h"
#include "transports/sockets/socket_ip.h"

/// A socket without limits of time. As many threads as the socket allows.
class CSocketIPDev : public io::io_dev_t {
 public:
  explicit CSocketIPDev(boost::shared_ptr<CSocketIP> socket);
  std::uint64_t Write(const void* data, std::uint64_t length) override;
  std::uint64_t Read(void* data, std::uint64_t length) override;

 private:
  const boost::shared_ptr<CSocketIP> socket_;
};

namespace io::net {

/// Gathers writes in a buffer and hands it on when it is full. One thread.
class CFastSocketIoDev : public io_dev_t {
 public:
  /// bufferSize of at least 1.
  CFastSocketIoDev(boost::shared_ptr<io_dev_t> device, std::size_t bufferSize);
  CFastSocketIoDev(const CFastSocketIoDev&) = delete;
  CFastSocketIoDev& operator=(const CFastSocketIoDev&) = delete;
  /// Writes what is left; a failure is logged, since the connection has ended then and its reader knows.
  ~CFastSocketIoDev() override;

  std::uint64_t Write(const void* data, std::uint64_t length) override;
  std::uint64_t Read(void* data, std::uint64_t length) override;
  /// Writes what is left.
  void Flush();

 private:
  const boost::shared_ptr<io_dev_t> device_;
  byte_buffer_t buffer_;
  std::size_t fill_ = 0;
};

}  // namespace io::net
