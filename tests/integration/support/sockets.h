// Sockets of a test: datagrams to the service, and other programs on its ports.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

#include "integration/support/wire.h"

namespace test {

inline sockaddr_in Loopback(std::uint16_t port, const char* host = "127.0.0.1") {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host, &address.sin_addr);
  return address;
}

/// A UDP socket that talks to one port of the service and to nothing else.
class CDatagrams {
 public:
  explicit CDatagrams(std::uint16_t port, const char* source = "127.0.0.1")
      : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in from = Loopback(0, source);
    const sockaddr_in to = Loopback(port);
    const int room = 4 << 20;
    setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&from), sizeof from), 0);
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  }
  CDatagrams(const CDatagrams&) = delete;
  CDatagrams& operator=(const CDatagrams&) = delete;
  ~CDatagrams() { close(socket_); }

  void Send(const bytes_t& datagram) {
    EXPECT_EQ(send(socket_, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
  }
  /// The next datagram; throws when none comes.
  bytes_t Receive() {
    pollfd entry{socket_, POLLIN, 0};
    if (poll(&entry, 1, 30000) != 1)
      throw std::runtime_error("no datagram in time");
    bytes_t data(65536, '\0');
    const ssize_t count = recv(socket_, data.data(), data.size(), 0);
    if (count < 0)
      throw std::runtime_error("nobody listens");
    data.resize(static_cast<std::size_t>(count));
    return data;
  }

 private:
  int socket_;
};

/// A socket of another program on a port of this test's network.
class COccupant {
 public:
  COccupant(int type, std::uint16_t port) : socket_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address = Loopback(port, "0.0.0.0");
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(listen(socket_, 5), 0);
    }
  }
  COccupant(const COccupant&) = delete;
  COccupant& operator=(const COccupant&) = delete;
  ~COccupant() { close(socket_); }
  /// The next connection, to be closed by the caller.
  int Accept() const { return accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC); }

 private:
  int socket_;
};

}  // namespace test
