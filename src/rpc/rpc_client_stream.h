// The connection over which the service calls a portmapper.
#pragma once

#include <cstddef>
#include <cstdint>

/// A connected byte stream with a limit on each wait for data. Used by one thread at a time.
class IRpcClientStream {
 public:
  virtual ~IRpcClientStream() = default;
  /// Sends all bytes or throws.
  virtual void Send(const void* data, std::size_t length) = 0;
  /// Receives exactly length bytes; socket_timeout_exc_t when timeoutSec (0 is no limit) passes without data.
  virtual void Recv(void* data, std::size_t length, std::uint32_t timeoutSec) = 0;
};
