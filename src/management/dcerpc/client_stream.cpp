#include "management/dcerpc/client_stream.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "foundation/exc.h"

namespace dcerpc {
namespace {

using limit_t = std::chrono::milliseconds;

/// Waits until one of the events is there; the errno of a wait that failed or ran out.
int WaitFor(int socket, short events, limit_t limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int left = -1;
    if (limit != limit_t::zero()) {
      const auto rest = std::chrono::ceil<limit_t>(end - std::chrono::steady_clock::now()).count();
      left = static_cast<int>(std::clamp<std::int64_t>(rest, 0, INT_MAX));
    }
    pollfd entry{socket, events, 0};
    const int count = ::poll(&entry, 1, left);
    if (count > 0)
      return 0;
    if (count == 0)
      return ETIMEDOUT;
    if (errno != EINTR)
      return errno;
  }
}

[[noreturn]] void ThrowConnectFailure(const std::string& where, platform::error_t error) {
  throw exc::win_sys_exc_t(exc::FormatText("Failed to connect to the service. Endpoint: [%1].", where), error);
}

/// The errno of the attempt; 0 for a connected socket.
int TryConnect(int socket, const sockaddr* address, socklen_t length, limit_t limit) {
  if (::connect(socket, address, length) == 0)
    return 0;
  // A full queue of a Unix listener is told by EAGAIN, and there is nothing to wait for.
  if (errno != EINPROGRESS && errno != EINTR)
    return errno;
  if (const int failure = WaitFor(socket, POLLOUT, limit))
    return failure;
  int result = 0;
  socklen_t size = sizeof result;
  return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &result, &size) == 0 ? result : errno;
}

struct addresses_deleter_t {
  void operator()(addrinfo* addresses) const noexcept { ::freeaddrinfo(addresses); }
};

}  // namespace

CSocketStream::CSocketStream(platform::descriptor_t socket, limit_t limit)
    : socket_(std::move(socket)), limit_(limit) {}

void CSocketStream::Wait(short events) const {
  const int failure = WaitFor(socket_.Get(), events, limit_);
  if (failure == ETIMEDOUT)
    throw exc::runtime_exc_t("The service did not answer within %1 seconds.", limit_.count() / 1000);
  if (failure != 0)
    throw exc::win_sys_exc_t("Failed to wait for the service.", platform::SocketErrorFromErrno(failure));
}

void CSocketStream::Send(bytes_view_t bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      Wait(POLLOUT);
    } else if (errno != EINTR) {
      throw exc::win_sys_exc_t("Failed to send to the service.", platform::SocketErrorFromErrno(errno));
    }
  }
}

void CSocketStream::Receive(std::span<std::uint8_t> buffer) {
  while (!buffer.empty()) {
    const ssize_t got = ::recv(socket_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (got > 0) {
      buffer = buffer.subspan(static_cast<std::size_t>(got));
    } else if (got == 0) {
      throw exc::runtime_exc_t("The service closed the connection.");
    } else if (errno == EAGAIN) {
      Wait(POLLIN);
    } else if (errno != EINTR) {
      throw exc::win_sys_exc_t("Failed to receive from the service.", platform::SocketErrorFromErrno(errno));
    }
  }
}

std::unique_ptr<IClientStream> ConnectUnix(const std::string& path, limit_t limit) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    throw exc::runtime_exc_t("The path of the endpoint is empty or too long for a socket. Path: [%1].", path);
  std::memcpy(static_cast<char*>(address.sun_path), path.c_str(), path.size() + 1);
  platform::descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket.Get() < 0)
    ThrowConnectFailure("unix:" + path, platform::LastError());
  const int failure = TryConnect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address, limit);
  if (failure != 0)
    ThrowConnectFailure("unix:" + path, platform::ErrorFromErrno(failure));
  return std::make_unique<CSocketStream>(std::move(socket), limit);
}

std::unique_ptr<IClientStream> ConnectTcp(const std::string& host, std::uint16_t port, limit_t limit) {
  const std::string where = "tcp:" + host + ":" + std::to_string(port);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int unresolved = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  const std::unique_ptr<addrinfo, addresses_deleter_t> addresses(list);
  if (unresolved != 0)
    throw exc::runtime_exc_t("The host [%1] has no address: %2.", host, ::gai_strerror(unresolved));
  int failure = EADDRNOTAVAIL;
  for (const addrinfo* entry = addresses.get(); entry != nullptr; entry = entry->ai_next) {
    platform::descriptor_t socket(
        ::socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, entry->ai_protocol));
    failure = socket.Get() < 0 ? errno : TryConnect(socket.Get(), entry->ai_addr, entry->ai_addrlen, limit);
    if (failure != 0)
      continue;
    const int on = 1;
    ::setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return std::make_unique<CSocketStream>(std::move(socket), limit);
  }
  ThrowConnectFailure(where, platform::SocketErrorFromErrno(failure));
}

}  // namespace dcerpc
