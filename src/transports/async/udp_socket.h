// A UDP socket over IPv4 with overlapped operations.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "transports/async/port_binding.h"
#include "transports/async/socket.h"

namespace win {

/// The source or target of a datagram, as the system tells it.
struct SDatagramAddress {
  sockaddr_storage address{};
  socklen_t length = 0;
};

/// Told of the datagrams of a socket, on the completion thread.
class IUdpEventsHandler {
 public:
  /// The datagram is in the buffer until this returns. What it throws costs this datagram alone.
  virtual void OnDatagramReceived(const SDatagramAddress& source, std::size_t size) = 0;
  virtual void OnDatagramSent() = 0;

 protected:
  ~IUdpEventsHandler() = default;
};

/// Bound from construction on. At most one receive and one send are pending.
class CUdpSocket : public CSocket {
 public:
  /// handler is this object's own derived part. Throws win_sys_exc_t.
  CUdpSocket(IUdpEventsHandler& handler, const SPortBinding& binding);

  /// Host order.
  std::uint16_t BoundPort() const { return boundPort_; }

  /// Starts to receive, one datagram after the other, into a buffer that lives as long as the object. After the socket
  /// has joined its port. Throws win_sys_exc_t.
  void Receive(std::uint8_t* buffer, std::size_t size);
  /// Sends one datagram. True: it is out. False: it waits, OnDatagramSent follows, and the data stays until then.
  /// Throws win_sys_exc_t for one that cannot be sent.
  bool Send(const SDatagramAddress& target, const std::uint8_t* data, std::size_t size);

 private:
  class CReceiveEvent;
  class CIOEvent;

  IUdpEventsHandler& handler_;
  const std::uint16_t boundPort_;
};

}  // namespace win
