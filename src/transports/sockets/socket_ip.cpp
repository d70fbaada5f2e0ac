#include "transports/sockets/socket_ip.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "foundation/byte_buffer.h"
#include "foundation/exc.h"
#include "foundation/perf_logger.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/futex.h"
#include "transports/sockets/close_tcp_connection.h"
#include "transports/sockets/socket_events.h"

namespace {

constexpr std::uint32_t WouldBlockPauseMs = 1000;
constexpr std::uint32_t MsPerSecond = 1000;

[[noreturn]] void ThrowSocketError(const std::string& text) {
  const platform::error_t code = platform::SocketErrorFromErrno(errno);
  throw exc::win_sys_exc_t(text, code);
}

enum class wait_t { Ready, TimedOut, Failed };

/// As select on one socket, for descriptors of any size. timeoutSec 0: no limit. An error state of the socket counts
/// as ready: the call that follows tells it.
wait_t WaitFor(int socket, short events, std::uint32_t timeoutSec) noexcept {
  const platform::deadline_t deadline = timeoutSec == 0
                                            ? platform::deadline_t::Never()
                                            : platform::deadline_t::After(std::uint64_t{timeoutSec} * MsPerSecond);
  if (socket < 0) {
    // poll passes over it in silence.
    errno = EBADF;
    return wait_t::Failed;
  }
  for (;;) {
    pollfd entry = {socket, events, 0};
    const std::uint32_t left = deadline.RemainingMs();
    const int limit = timeoutSec == 0 ? -1 : static_cast<int>(std::min<std::uint32_t>(left, INT32_MAX));
    const int ready = ::poll(&entry, 1, limit);
    if (ready > 0) {
      if ((entry.revents & POLLNVAL) == 0)
        return wait_t::Ready;
      errno = EBADF;
      return wait_t::Failed;
    }
    if (ready < 0 && errno != EINTR)
      return wait_t::Failed;
    if (timeoutSec != 0 && deadline.IsOver())
      return wait_t::TimedOut;
  }
}

/// A call that a signal interrupted is made again.
template <typename SocketCall>
auto Repeat(const SocketCall& call) {
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result;
}

/// What a failed transfer means: returns when it is to be tried again after a pause.
void CheckTransferFailure(const char* function) {
  const platform::error_t code = platform::SocketErrorFromErrno(errno);
  if (code == platform::error::WsaConnectionAborted)
    throw CCloseTCPConnection();
  if (code != platform::error::WsaWouldBlock)
    throw exc::win_sys_exc_t(exc::FormatText("Error in %1", function), code);
}

/// After a transfer that was tried without waiting. The wait is also what tells of a descriptor that is none.
bool MustWait() noexcept {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EBADF;
}

sockaddr_in AnyAddress(std::uint16_t port) noexcept {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return address;
}

/// Connects; a wait that a signal interrupted is gone on with.
bool ConnectWhole(int socket, const sockaddr_in& address) noexcept {
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
    return true;
  if (errno != EINTR)
    return false;
  if (WaitFor(socket, POLLOUT, 0) != wait_t::Ready)
    return false;
  int failure = 0;
  socklen_t size = sizeof(failure);
  if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &failure, &size) != 0)
    return false;
  errno = failure;
  return failure == 0;
}

/// Sizes the buffer; false where there is no memory for it.
bool HasRoomFor(io::byte_buffer_t& buffer, std::size_t size) noexcept {
  try {
    buffer.resize(size);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void ReadAll(platform::kernel_pipe_t& pipe, io::byte_buffer_t& buffer) {
  std::size_t read = 0;
  if (const platform::error_t failure = pipe.Read(buffer, read); failure != platform::error::Success)
    throw exc::win_sys_exc_t("Cannot read what is to be sent.", failure);
}

}  // namespace

std::string SocketAddressText(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

SSocketStatistics& CSocketIP::Statistics() noexcept {
  static SSocketStatistics statistics;
  return statistics;
}

void CSocketIP::WriteStatisticsEvent() noexcept {
  perf::WriteRecord(perf::event::SocketTotals,
                    perf::socket_totals_t{Statistics().calls.load(std::memory_order_relaxed),
                                          Statistics().bytes.load(std::memory_order_relaxed)});
}

CSocketIP::CSocketIP(bool tcp)
    : socket_(::socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, tcp ? IPPROTO_TCP : IPPROTO_UDP)) {
  if (!socket_.IsOpen())
    ThrowSocketError("Cannot create socket");
}

CSocketIP::CSocketIP(platform::descriptor_t socket, bool connected)
    : socket_(std::move(socket)), connected_(connected) {
  if (!connected_)
    return;
  sockaddr_in peer = {};
  socklen_t size = sizeof(peer);
  if (::getpeername(Socket(), reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.sin_family == AF_INET)
    remoteName_ = SocketAddressText(peer);
}

CSocketIP::~CSocketIP() {
  Close();
}

void CSocketIP::Close() noexcept {
  if (!socket_.IsOpen())
    return;
  if (connected_ && closeGracefully_)
    ::shutdown(Socket(), SHUT_RDWR);
  socket_ = platform::descriptor_t(-1);
  connected_ = false;
}

void CSocketIP::Abort() const noexcept {
  ::shutdown(Socket(), SHUT_RDWR);
}

void CSocketIP::WaitToRead() {
  const std::uint32_t timeoutSec = TimeoutSec();
  switch (WaitFor(Socket(), POLLIN, timeoutSec)) {
    case wait_t::Ready:
      return;
    case wait_t::TimedOut:
      throw exc::socket_timeout_exc_t("Socket recv operation timed out (%1 sec).", timeoutSec);
    case wait_t::Failed:
      ThrowSocketError("Select error in  CSocketIP::Read.");
  }
}

void CSocketIP::WaitToWrite() {
  if (beforeSendWait_)
    beforeSendWait_();
  switch (WaitFor(Socket(), POLLOUT, TimeoutSec())) {
    case wait_t::Ready:
      return;
    case wait_t::TimedOut:
      throw exc::runtime_exc_t("Timed out in socket send operation.");
    case wait_t::Failed:
      ThrowSocketError("Select error in  CSocketIP::Write.");
  }
}

/// Waits for data, and gives what there is of it. function: the caller's, for the failure's text.
std::uint64_t CSocketIP::ReadOnce(void* data, std::uint64_t length, const char* function) {
  for (;;) {
    ssize_t received = Repeat([&] { return ::recv(Socket(), data, length, MSG_DONTWAIT); });
    if (received < 0 && MustWait()) {
      WaitToRead();
      received = Repeat([&] { return ::recv(Socket(), data, length, 0); });
    }
    if (received == 0)
      throw CCloseTCPConnection();
    if (received > 0)
      return static_cast<std::uint64_t>(received);
    CheckTransferFailure(function);
    platform::Clock().Sleep(WouldBlockPauseMs);
  }
}

std::uint64_t CSocketIP::Read(void* data, std::uint64_t length) {
  if (!connected_)
    throw exc::runtime_exc_t("Trying to receive over not connected socket.");
  CSocketTransferEvent event(perf::event::SocketReceive, length, perfEvents_);
  auto* const bytes = static_cast<std::uint8_t*>(data);
  for (std::uint64_t done = 0; done < length;)
    done += ReadOnce(bytes + done, length - done, __PRETTY_FUNCTION__);
  event.SetDone(length);
  return length;
}

/// All of the pieces, which are used up on the way. function: the caller's, for the failure's text.
void CSocketIP::WritePieces(std::span<iovec> pieces, const char* function, int moreFlags) {
  msghdr message = {};
  message.msg_iov = pieces.data();
  message.msg_iovlen = pieces.size();
  // With a limit a send takes only what fits at once, so that no wait hides in it.
  const int flags = MSG_NOSIGNAL | moreFlags | (TimeoutSec() != 0 ? MSG_DONTWAIT : 0);
  for (;;) {
    for (; message.msg_iovlen != 0 && message.msg_iov->iov_len == 0; --message.msg_iovlen)
      ++message.msg_iov;
    if (message.msg_iovlen == 0)
      return;
    ssize_t sent = Repeat([&] { return ::sendmsg(Socket(), &message, flags | MSG_DONTWAIT); });
    if (sent < 0 && MustWait()) {
      WaitToWrite();
      sent = Repeat([&] { return ::sendmsg(Socket(), &message, flags); });
    }
    if (sent == 0)
      throw CCloseTCPConnection();
    if (sent < 0) {
      CheckTransferFailure(function);
      platform::Clock().Sleep(WouldBlockPauseMs);
    }
    for (iovec* piece = message.msg_iov; sent > 0; ++piece) {
      const std::size_t part = std::min(piece->iov_len, static_cast<std::size_t>(sent));
      piece->iov_base = static_cast<std::uint8_t*>(piece->iov_base) + part;
      piece->iov_len -= part;
      sent -= static_cast<ssize_t>(part);
    }
  }
}

std::uint64_t CSocketIP::Write(const void* data, std::uint64_t length) {
  if (!connected_)
    throw exc::runtime_exc_t("Trying to send over not connected socket.");
  CSocketTransferEvent event(perf::event::SocketSend, length, perfEvents_);
  iovec piece = {const_cast<void*>(data), length};
  WritePieces({&piece, 1}, __PRETTY_FUNCTION__);
  event.SetDone(length);
  return length;
}

bool CSocketIP::NonBlockingRead(void* data, std::uint64_t length, std::uint64_t& outCount) {
  const ssize_t received = Repeat([&] { return ::recv(Socket(), data, length, MSG_DONTWAIT); });
  Statistics().calls.fetch_add(1, std::memory_order_relaxed);
  if (received == 0)
    throw CCloseTCPConnection();
  if (received < 0) {
    CheckTransferFailure(__PRETTY_FUNCTION__);
    return false;
  }
  outCount = static_cast<std::uint64_t>(received);
  Statistics().bytes.fetch_add(outCount, std::memory_order_relaxed);
  return true;
}

bool CSocketIP::NonBlockingWrite(const void* data, std::uint64_t length, std::uint64_t& outCount) {
  const ssize_t sent = Repeat([&] { return ::send(Socket(), data, length, MSG_DONTWAIT | MSG_NOSIGNAL); });
  Statistics().calls.fetch_add(1, std::memory_order_relaxed);
  if (sent < 0) {
    CheckTransferFailure(__PRETTY_FUNCTION__);
    return false;
  }
  outCount = static_cast<std::uint64_t>(sent);
  Statistics().bytes.fetch_add(outCount, std::memory_order_relaxed);
  return true;
}

void CSocketIP::Connect(const std::string& address, std::uint16_t port) {
  sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = ::inet_addr(address.c_str());
  errno = EADDRNOTAVAIL;
  if (peer.sin_addr.s_addr == INADDR_NONE || !ConnectWhole(Socket(), peer)) {
    const platform::error_t code = platform::SocketErrorFromErrno(errno);
    exc::win_sys_exc_t failure("Cannot connect to socket.", code);
    failure.AddMessage(exc::FormatText("TCP error, code: [%1].", code));
    throw failure;
  }
  connected_ = true;
  remoteName_ = SocketAddressText(peer);
  if (perfEvents_ && perf::IsOn())
    WriteConnectionEvent(perf::event::SocketConnect, peer);
}

void CSocketIP::Bind(std::uint16_t port) {
  const sockaddr_in address = AnyAddress(port);
  if (::bind(Socket(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    ThrowSocketError("Cannot bind socket");
}

bool CSocketIP::BindReservedPort() noexcept {
  return ::bindresvport(Socket(), nullptr) == 0;
}

platform::descriptor_t CSocketIP::Accept() {
  sockaddr_in peer = {};
  socklen_t size = sizeof(peer);
  constexpr int flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
  platform::descriptor_t accepted(
      Repeat([&] { return ::accept4(Socket(), reinterpret_cast<sockaddr*>(&peer), &size, flags); }));
  if (!accepted.IsOpen())
    ThrowSocketError("Cannot accept socket");
  if (perfEvents_ && perf::IsOn())
    WriteConnectionEvent(perf::event::SocketAccept, peer);
  return accepted;
}

void CSocketIP::SetDelay(bool delay) {
  const int noDelay = delay ? 0 : 1;
  if (::setsockopt(Socket(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay)) != 0)
    ThrowSocketError("setsockopt failed to set TCP_NODELAY");
}

void CSocketIP::Send(const void* data, std::uint64_t length, std::uint32_t timeoutSec) {
  SetTimeoutSec(timeoutSec);
  const std::uint64_t sent = secondDevice_ != nullptr ? secondDevice_->Write(data, length) : Write(data, length);
  if (sent < length)
    throw exc::runtime_exc_t("CSosketIP::Send has failed.");
}

void CSocketIP::SendPieces(std::span<const iovec> pieces, bool more) {
  std::uint64_t length = 0;
  for (const iovec& piece : pieces)
    length += piece.iov_len;
  if (secondDevice_ != nullptr) {
    io::byte_buffer_t whole;
    whole.reserve(length);
    for (const iovec& piece : pieces) {
      const auto* const bytes = static_cast<const std::uint8_t*>(piece.iov_base);
      whole.insert(whole.end(), bytes, bytes + piece.iov_len);
    }
    Send(whole.data(), whole.size());
    return;
  }
  if (!connected_)
    throw exc::runtime_exc_t("Trying to send over not connected socket.");
  SetTimeoutSec(0);
  CSocketTransferEvent event(perf::event::SocketSend, length, perfEvents_);
  std::vector<iovec> left(pieces.begin(), pieces.end());
  WritePieces(left, __PRETTY_FUNCTION__, more ? MSG_MORE : 0);
  event.SetDone(length);
}

void CSocketIP::SendPipe(boost::shared_ptr<platform::kernel_pipe_t> pipe, bool more) {
  const std::size_t length = pipe->Held();
  io::byte_buffer_t rest;
  if (secondDevice_ != nullptr) {
    rest.resize(length);
    ReadAll(*pipe, rest);
    Send(rest.data(), rest.size());
    return;
  }
  if (!connected_)
    throw exc::runtime_exc_t("Trying to send over not connected socket.");
  SetTimeoutSec(0);
  CSocketTransferEvent event(perf::event::SocketSend, length, perfEvents_);
  while (pipe != nullptr && pipe->Held() > 0) {
    const ssize_t sent = Repeat([&] { return pipe->GiveToSocket(Socket(), pipe->Held(), more); });
    if (sent == 0)
      throw CCloseTCPConnection();
    if (sent < 0 && MustWait()) {
      if (platform::kernel_pipe_t::AreScarce() && HasRoomFor(rest, pipe->Held())) {
        ReadAll(*pipe, rest);
        pipe.reset();
      } else {
        WaitToWrite();
      }
    } else if (sent < 0) {
      // Never a reason to try again: that was looked at before.
      CheckTransferFailure(__PRETTY_FUNCTION__);
    }
  }
  if (!rest.empty()) {
    iovec piece = {rest.data(), rest.size()};
    WritePieces({&piece, 1}, __PRETTY_FUNCTION__, more ? MSG_MORE : 0);
  }
  event.SetDone(length);
}

void CSocketIP::Recv(void* data, std::uint64_t length) {
  const std::uint64_t received = secondDevice_ != nullptr ? secondDevice_->Read(data, length) : Read(data, length);
  if (received < length)
    throw exc::runtime_exc_t("CSosketIP::Recv has failed.");
}

void CSocketIP::Recv(void* data, std::uint64_t length, std::uint32_t timeoutSec) {
  SetTimeoutSec(timeoutSec);
  Recv(data, length);
}

std::uint64_t CSocketIP::RecvSome(void* data, std::uint64_t length) {
  if (!connected_)
    throw exc::runtime_exc_t("Trying to receive over not connected socket.");
  SetTimeoutSec(0);
  CSocketTransferEvent event(perf::event::SocketReceive, length, perfEvents_);
  const std::uint64_t received = ReadOnce(data, length, __PRETTY_FUNCTION__);
  event.SetDone(received);
  return received;
}

std::uint64_t CSocketIP::ReceiveFrom(void* data, std::uint64_t length, sockaddr_in& address) {
  if (WaitFor(Socket(), POLLIN, 0) != wait_t::Ready)
    ThrowSocketError("Select error.");
  // From here: a datagram may be long in coming.
  CSocketTransferEvent event(perf::event::SocketReceiveFrom, length, perfEvents_);
  socklen_t size = sizeof(address);
  const ssize_t received =
      Repeat([&] { return ::recvfrom(Socket(), data, length, 0, reinterpret_cast<sockaddr*>(&address), &size); });
  if (received < 0)
    ThrowSocketError("Connection aborted.");
  if (received == 0)
    throw CCloseTCPConnection();
  event.SetDone(static_cast<std::uint64_t>(received));
  return static_cast<std::uint64_t>(received);
}

std::uint64_t CSocketIP::SendTo(const void* data, std::uint64_t length, const sockaddr_in& address) {
  CSocketTransferEvent event(perf::event::SocketSendTo, length, perfEvents_);
  if (WaitFor(Socket(), POLLOUT, 0) != wait_t::Ready)
    ThrowSocketError("Select error in SendTo().");
  const ssize_t sent = Repeat([&] {
    return ::sendto(Socket(), data, length, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  });
  if (sent < 0)
    ThrowSocketError("Connection aborted in SendTo().");
  event.SetDone(static_cast<std::uint64_t>(sent));
  return static_cast<std::uint64_t>(sent);
}

void CSocketIP::SetDevices(boost::shared_ptr<io::io_dev_t> first, boost::shared_ptr<io::io_dev_t> second) {
  firstDevice_ = std::move(first);
  secondDevice_ = std::move(second);
}
