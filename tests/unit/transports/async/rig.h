// A client made of a plain socket, and a server with programs that do as they are told.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "rpc/service_ports.h"
#include "support/captured_log.h"
#include "transports/async/async_server.h"

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

/// What the fake program is told to do by the first word of a request.
enum class order_t : std::uint32_t {
  Echo = 0,   ///< Replies with the record.
  Throw = 1,  ///< Fails with "boom".
  Blow = 2,   ///< Replies with its number and as many zero bytes as the third word says.
  Wait = 3    ///< As Echo, after the gate was opened whose number is the third word.
};

inline bytes_t Request(order_t order, std::uint32_t number, std::uint32_t parameter = 0) {
  bytes_t record;
  AppendWord(record, static_cast<std::uint32_t>(order));
  AppendWord(record, number);
  AppendWord(record, parameter);
  return record;
}

inline bytes_t WithMark(const bytes_t& record) {
  bytes_t out;
  AppendWord(out, 0x80000000U | static_cast<std::uint32_t>(record.size()));
  out.insert(out.end(), record.begin(), record.end());
  return out;
}

/// The fake program. Any thread.
class Program {
 public:
  rpc_handler_t Handler() {
    return [this](bool allowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer) {
      Handle(allowed, peer, reader, writer);
    };
  }
  /// Opens the gate and those of lower numbers; without a number all.
  void OpenGate(std::uint32_t number = std::numeric_limits<std::uint32_t>::max() - 1) {
    {
      const std::lock_guard guard(lock_);
      openGates_ = number + 1;
    }
    opened_.notify_all();
  }

  std::atomic<int> begun{0};
  std::atomic<int> handled{0};
  std::atomic<bool> lastAllowed{false};
  std::atomic<std::uint16_t> lastPeerPort{0};

 private:
  void Handle(bool allowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer) {
    ++begun;
    lastAllowed = allowed;
    lastPeerPort = ntohs(peer.sin_port);
    const auto record = reader.Record();
    const auto order = static_cast<order_t>(reader.UInt());
    switch (order) {
      case order_t::Throw:
        throw exc::runtime_exc_t(std::string("boom"));
      case order_t::Blow: {
        const std::uint32_t number = reader.UInt();
        const bytes_t zeros(reader.UInt());
        writer.UInt(number);
        writer.Data(zeros.data(), zeros.size());
        break;
      }
      case order_t::Wait: {
        reader.UInt();
        const std::uint32_t gate = reader.UInt();
        std::unique_lock guard(lock_);
        opened_.wait(guard, [&] { return gate < openGates_; });
        [[fallthrough]];
      }
      case order_t::Echo:
        writer.Data(record.data(), record.size());
        break;
    }
    ++handled;
  }

  std::mutex lock_;
  std::condition_variable opened_;
  std::uint32_t openGates_ = 0;
};

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

/// The server with the fake program as NFS; ports of the system's choice.
class Server {
 public:
  explicit Server(boost::shared_ptr<IAddressChecker> checker = nullptr) {
    SAsyncServerParams params = Params(program);
    params.addressChecker = std::move(checker);
    server.emplace(std::move(params));
    port = ServicePorts().nfs;
    mountPort = ServicePorts().mount;
  }
  ~Server() { program.OpenGate(); }

  static SAsyncServerParams Params(Program& program) {
    SAsyncServerParams params;
    params.mountProgram = params.nfsProgram = params.portmapProgram = program.Handler();
    params.portmapPort = 0;
    return params;
  }

  Program program;
  std::optional<CAsyncServer> server;
  /// Returns when everything that clients have sent so far stands in the queues: the thread that puts it there serves
  /// other ports too, and their data comes later.
  void AwaitReceived() const {
    Client other(mountPort);
    other.Call(Request(order_t::Echo, 0));
    other.Reply();
  }

  std::uint16_t port = 0;
  std::uint16_t mountPort = 0;
};

}  // namespace test
