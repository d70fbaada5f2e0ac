// A socket of a peer that keeps to no rules.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "management/dcerpc/pdu.h"
#include "platform/location.h"

namespace test {

class RawPeer {
 public:
  RawPeer() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  explicit RawPeer(const std::string& port) : RawPeer() { Connect(port); }

  void Connect(const std::string& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }

  void Send(dcerpc::bytes_view_t bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      ASSERT_GT(sent, 0);
      bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
  }
  /// Sends the bytes over and over, until nobody has taken any for so many milliseconds (-1 for no limit) or the
  /// connection has ended; returns how much that was.
  std::size_t Flood(dcerpc::bytes_view_t bytes, int patienceMs) {
    std::size_t total = 0;
    for (pollfd room{socket_.Get(), POLLOUT, 0}; ::poll(&room, 1, patienceMs) == 1;) {
      const dcerpc::bytes_view_t rest = bytes.subspan(total % bytes.size());
      const ssize_t sent = ::send(socket_.Get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        total += static_cast<std::size_t>(sent);
      } else if (errno != EAGAIN && errno != EINTR) {
        break;
      }
    }
    return total;
  }

  /// The next PDU; empty at the end of the connection.
  dcerpc::bytes_t Receive() {
    dcerpc::bytes_t pdu(dcerpc::HeaderSize);
    if (!Fill(pdu, 0))
      return {};
    pdu.resize(dcerpc::DecodeHeader(pdu).fragmentLength);
    if (!Fill(pdu, dcerpc::HeaderSize))
      return {};
    return pdu;
  }
  /// Waits for the end of the connection, and drops what comes before it.
  void WaitForEnd() {
    dcerpc::bytes_t dropped(65536);
    while (::recv(socket_.Get(), dropped.data(), dropped.size(), 0) > 0) {
    }
  }
  bool HasSomething() const {
    pollfd readable{socket_.Get(), POLLIN, 0};
    return ::poll(&readable, 1, 0) > 0;
  }
  void Close() { socket_ = platform::descriptor_t(-1); }

 private:
  bool Fill(dcerpc::bytes_t& bytes, std::size_t from) const {
    return from == bytes.size() || ::recv(socket_.Get(), bytes.data() + from, bytes.size() - from, MSG_WAITALL) ==
                                       static_cast<ssize_t>(bytes.size() - from);
  }

  platform::descriptor_t socket_;
};

}  // namespace test
