// The connection that a client calls over.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "management/dcerpc/rpc_interface.h"
#include "platform/location.h"

namespace dcerpc {

/// A connected byte stream. Used by one thread at a time.
class IClientStream {
 public:
  virtual ~IClientStream() = default;
  /// Sends all bytes or throws exc::runtime_exc_t or exc::win_sys_exc_t.
  virtual void Send(bytes_view_t bytes) = 0;
  /// Fills the buffer or throws as Send does; the peer's end of the connection is a failure.
  virtual void Receive(std::span<std::uint8_t> buffer) = 0;
};

/// A stream socket. A wait that lasts longer than the limit without a byte is a failure; zero is no limit.
class CSocketStream : public IClientStream {
 public:
  CSocketStream(platform::descriptor_t socket, std::chrono::milliseconds limit);
  void Send(bytes_view_t bytes) override;
  void Receive(std::span<std::uint8_t> buffer) override;

 private:
  void Wait(short events) const;

  platform::descriptor_t socket_;
  const std::chrono::milliseconds limit_;
};

/// Connects to a listener on this machine. Throws exc::runtime_exc_t or exc::win_sys_exc_t.
std::unique_ptr<IClientStream> ConnectUnix(const std::string& path, std::chrono::milliseconds limit);

/// Connects to the first address of the host that takes the connection. Throws as ConnectUnix does; each attempt has
/// the limit for itself.
std::unique_ptr<IClientStream> ConnectTcp(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit);

}  // namespace dcerpc
