// A client made of a plain socket, for the tests of both servers.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/captured_log.h"

namespace test {

using bytes_t = std::vector<std::uint8_t>;

inline void AppendWord(bytes_t& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(value >> shift));
  }
}

inline std::uint32_t WordAt(const bytes_t& bytes, std::size_t offset) {
  std::uint32_t word = 0;
  std::memcpy(&word, bytes.data() + offset, sizeof(word));
  return ntohl(word);
}

/// What a reply has whose data may be in a pipe.
inline bytes_t PipeData(std::uint32_t number, std::uint32_t length) {
  bytes_t data(length);
  for (std::uint32_t i = 0; i < length; ++i) {
    data[i] = static_cast<std::uint8_t>(i * 7 + i / 251 + number);
  }
  return data;
}

/// Waits for a condition that is due; false when it does not come at all.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Whether a line was logged, at whatever depth.
inline bool Logged(const CapturedLog& log, const std::string& line) {
  const std::vector<std::string> texts = log.Texts();
  return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin != std::string::npos && text.compare(begin, std::string::npos, line) == 0;
  });
}

inline bytes_t WithMark(const bytes_t& record) {
  bytes_t out;
  AppendWord(out, 0x80000000U | static_cast<std::uint32_t>(record.size()));
  out.insert(out.end(), record.begin(), record.end());
  return out;
}

/// A TCP client of this machine; every receive has a limit after which the test fails.
class Client {
 public:
  explicit Client(std::uint16_t port, int receiveBuffer = 0) : Client(receiveBuffer) { Connect(port); }
  /// Not connected yet.
  explicit Client(int receiveBuffer) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receiveBuffer != 0) {
      ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    const timeval limit{20, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    const int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { Close(); }

  void Connect(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("connect");
    }
  }
  void Close() {
    if (socket_ >= 0) {
      ::close(std::exchange(socket_, -1));
    }
  }
  void Reset() {
    const linger hard{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    Close();
  }
  int Handle() const { return socket_; }
  /// Bytes that have not been received yet.
  std::size_t Arrived() const {
    int count = 0;
    ::ioctl(socket_, FIONREAD, &count);
    return static_cast<std::size_t>(count);
  }
  std::uint16_t Port() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
  }
  std::string Name() const { return "127.0.0.1:" + std::to_string(Port()); }

  void Send(const bytes_t& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const auto count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) {
        throw std::runtime_error("send");
      }
      sent += static_cast<std::size_t>(count);
    }
  }
  void Call(const bytes_t& record) { Send(WithMark(record)); }
  /// None at the end of the stream, orderly or not.
  std::optional<bytes_t> Reply() {
    bytes_t mark(4);
    if (!Receive(mark)) {
      return std::nullopt;
    }
    const std::uint32_t word = WordAt(mark, 0);
    if ((word & 0x80000000U) == 0) {
      throw std::runtime_error("a reply in pieces");
    }
    bytes_t record(word & 0x7FFFFFFFU);
    if (!Receive(record)) {
      throw std::runtime_error("a cut reply");
    }
    return record;
  }

 private:
  bool Receive(bytes_t& bytes) {
    for (std::size_t got = 0; got < bytes.size();) {
      const auto count = ::recv(socket_, bytes.data() + got, bytes.size() - got, 0);
      if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        throw std::runtime_error("no answer");
      }
      if (count <= 0) {
        return false;
      }
      got += static_cast<std::size_t>(count);
    }
    return true;
  }

  int socket_;
};

}  // namespace test
