#include "transports/sockets/socket_ip.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "foundation/exc.h"
#include "transports/sockets/close_tcp_connection.h"

namespace {

[[noreturn]] void ThrowSocketError(const std::string& text, int errnoValue = errno) {
  throw exc::win_sys_exc_t(text, platform::SocketErrorFromErrno(errnoValue));
}

enum class wait_t { Ready, TimedOut, Failed };

/// Waits for one side of a socket; seconds of 0 are no limit. Not select, which cannot name descriptors past 1023.
wait_t WaitFor(int socket, short events, std::uint32_t timeoutSec) {
  using clock_t = std::chrono::steady_clock;
  const auto end = clock_t::now() + std::chrono::seconds(timeoutSec);
  for (;;) {
    int limit = -1;
    if (timeoutSec != 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock_t::now()).count();
      limit = static_cast<int>(std::clamp<long long>(left, 0, 0x7FFFFFFF));
    }
    pollfd poll{socket, events, 0};
    const int result = ::poll(&poll, 1, limit);
    if (result > 0)
      return wait_t::Ready;
    if (result == 0)
      return wait_t::TimedOut;
    if (errno != EINTR)
      return wait_t::Failed;
  }
}

const sockaddr* Generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

/// Adds a non-blocking call to the statistics; keeps errno.
void Count(ssize_t result) {
  SSocketStatistics& statistics = CSocketIP::Statistics();
  statistics.calls.fetch_add(1, std::memory_order_relaxed);
  if (result > 0)
    statistics.bytes.fetch_add(static_cast<std::uint64_t>(result), std::memory_order_relaxed);
}

constexpr std::chrono::milliseconds WouldBlockPause{1000};

}  // namespace

CSocketIP::CSocketIP(bool tcp) {
  socket_ = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, tcp ? IPPROTO_TCP : IPPROTO_UDP);
  if (socket_ < 0)
    ThrowSocketError("Cannot create socket");
}

CSocketIP::CSocketIP(int socket, bool connected) : socket_(socket), connected_(connected) {
  sockaddr_in peer{};
  socklen_t length = sizeof peer;
  if (connected && getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && peer.sin_family == AF_INET)
    remoteName_ = SocketAddressText(peer);
}

CSocketIP::~CSocketIP() {
  Close();
}

SSocketStatistics& CSocketIP::Statistics() noexcept {
  static SSocketStatistics statistics;
  return statistics;
}

void CSocketIP::Connect(const std::string& address, std::uint16_t port) {
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_port = htons(port);
  errno = EINVAL;
  const bool connected = inet_pton(AF_INET, address.c_str(), &target.sin_addr) == 1 &&
                         connect(socket_, Generic(target), sizeof target) == 0;
  if (!connected) {
    const platform::error_t code = platform::SocketErrorFromErrno(errno);
    exc::win_sys_exc_t failure("Cannot connect to socket.", code);
    failure.AddMessage(exc::FormatText("TCP error, code: [%1].", code));
    throw failure;
  }
  connected_ = true;
  remoteName_ = SocketAddressText(target);
}

void CSocketIP::Bind(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(socket_, Generic(address), sizeof address) != 0)
    ThrowSocketError("Cannot bind socket");
}

int CSocketIP::Accept() {
  const int accepted = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
  if (accepted < 0)
    ThrowSocketError("Cannot accept socket");
  return accepted;
}

void CSocketIP::SetDelay(bool delay) {
  const int noDelay = delay ? 0 : 1;
  if (setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0)
    ThrowSocketError("setsockopt failed to set TCP_NODELAY");
}

void CSocketIP::Send(const void* data, std::uint64_t length, std::uint32_t timeoutSec) {
  SetTimeoutSec(timeoutSec);
  const std::uint64_t sent = secondDevice_ ? secondDevice_->Write(data, length) : Write(data, length);
  if (sent != length)
    throw exc::runtime_exc_t("CSosketIP::Send has failed.");
}

void CSocketIP::Recv(void* data, std::uint64_t length) {
  const std::uint64_t received = secondDevice_ ? secondDevice_->Read(data, length) : Read(data, length);
  if (received != length)
    throw exc::runtime_exc_t("CSosketIP::Recv has failed.");
}

void CSocketIP::Recv(void* data, std::uint64_t length, std::uint32_t timeoutSec) {
  SetTimeoutSec(timeoutSec);
  Recv(data, length);
}

std::uint64_t CSocketIP::ReceiveFrom(void* data, std::uint64_t length, sockaddr_in& address) {
  if (WaitFor(socket_, POLLIN, 0) != wait_t::Ready)
    ThrowSocketError("Select error.");
  socklen_t addressLength = sizeof address;
  const ssize_t count = recvfrom(socket_, data, length, 0, reinterpret_cast<sockaddr*>(&address), &addressLength);
  if (count < 0)
    ThrowSocketError("Connection aborted.");
  if (count == 0)
    throw CCloseTCPConnection();
  return static_cast<std::uint64_t>(count);
}

std::uint64_t CSocketIP::SendTo(const void* data, std::uint64_t length, const sockaddr_in& address) {
  if (WaitFor(socket_, POLLOUT, 0) != wait_t::Ready)
    ThrowSocketError("Select error in SendTo().");
  const ssize_t count = sendto(socket_, data, length, MSG_NOSIGNAL, Generic(address), sizeof address);
  if (count < 0)
    ThrowSocketError("Connection aborted in SendTo().");
  return static_cast<std::uint64_t>(count);
}

void CSocketIP::WaitToRead() {
  const std::uint32_t limit = TimeoutSec();
  const wait_t wait = WaitFor(socket_, POLLIN, limit);
  if (wait == wait_t::Failed)
    ThrowSocketError("Select error in  CSocketIP::Read.");
  if (wait == wait_t::TimedOut)
    throw exc::socket_timeout_exc_t("Socket recv operation timed out (%1 sec).", limit);
}

void CSocketIP::WaitToWrite() {
  const wait_t wait = WaitFor(socket_, POLLOUT, TimeoutSec());
  if (wait == wait_t::Failed)
    ThrowSocketError("Select error in  CSocketIP::Write.");
  if (wait == wait_t::TimedOut)
    throw exc::runtime_exc_t("Timed out in socket send operation.");
}

std::uint64_t CSocketIP::Read(void* data, std::uint64_t length) {
  if (!connected_)
    throw exc::runtime_exc_t("Trying to receive over not connected socket.");
  auto* place = static_cast<char*>(data);
  std::uint64_t left = length;
  while (left > 0) {
    WaitToRead();
    const ssize_t count = recv(socket_, place, left, 0);
    if (count > 0) {
      place += count;
      left -= static_cast<std::uint64_t>(count);
    } else if (count == 0 || errno == ECONNABORTED) {
      throw CCloseTCPConnection();
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      std::this_thread::sleep_for(WouldBlockPause);
    } else if (errno != EINTR) {
      ThrowSocketError(exc::FormatText("Error in %1", "CSocketIP::Read"));
    }
  }
  return length;
}

std::uint64_t CSocketIP::Write(const void* data, std::uint64_t length) {
  if (!connected_)
    throw exc::runtime_exc_t("Trying to send over not connected socket.");
  const auto* place = static_cast<const char*>(data);
  std::uint64_t left = length;
  while (left > 0) {
    WaitToWrite();
    // A send that waited inside the kernel would not be bound by the limit.
    const int flags = MSG_NOSIGNAL | (TimeoutSec() != 0 ? MSG_DONTWAIT : 0);
    const ssize_t count = send(socket_, place, left, flags);
    if (count > 0) {
      place += count;
      left -= static_cast<std::uint64_t>(count);
    } else if (count < 0 && errno == ECONNABORTED) {
      throw CCloseTCPConnection();
    } else if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      std::this_thread::sleep_for(WouldBlockPause);
    } else if (count < 0 && errno != EINTR) {
      ThrowSocketError(exc::FormatText("Error in %1", "CSocketIP::Write"));
    }
  }
  return length;
}

bool CSocketIP::NonBlockingRead(void* data, std::uint64_t length, std::uint64_t& outCount) {
  const ssize_t count = recv(socket_, data, length, MSG_DONTWAIT);
  Count(count);
  if (count > 0) {
    outCount = static_cast<std::uint64_t>(count);
    return true;
  }
  if (count == 0 || errno == ECONNABORTED)
    throw CCloseTCPConnection();
  if (errno == EAGAIN || errno == EWOULDBLOCK)
    return false;
  ThrowSocketError(exc::FormatText("Error in %1", "CSocketIP::NonBlockingRead"));
}

bool CSocketIP::NonBlockingWrite(const void* data, std::uint64_t length, std::uint64_t& outCount) {
  const ssize_t count = send(socket_, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  Count(count);
  if (count >= 0) {
    outCount = static_cast<std::uint64_t>(count);
    return true;
  }
  if (errno == ECONNABORTED)
    throw CCloseTCPConnection();
  if (errno == EAGAIN || errno == EWOULDBLOCK)
    return false;
  ThrowSocketError(exc::FormatText("Error in %1", "CSocketIP::NonBlockingWrite"));
}

void CSocketIP::Close() noexcept {
  if (socket_ < 0)
    return;
  if (connected_ && closeGracefully_)
    shutdown(socket_, SHUT_RDWR);
  close(socket_);
  socket_ = -1;
  connected_ = false;
}

void CSocketIP::SetDevices(boost::shared_ptr<io::io_dev_t> first, boost::shared_ptr<io::io_dev_t> second) {
  firstDevice_ = std::move(first);
  secondDevice_ = std::move(second);
}

std::string SocketAddressText(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}
