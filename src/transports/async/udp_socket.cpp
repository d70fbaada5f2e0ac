#include "transports/async/udp_socket.h"

#include <netdb.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/async/completion_port.h"

namespace win {
namespace {

int MakeSocket() {
  const int handle = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
  if (handle < 0) {
    throw exc::win_sys_exc_t("Failed to create UDP socket.", platform::SocketErrorFromErrno(errno));
  }
  return handle;
}

io_attempt_t Judge(int errnoValue, SIoResult& result) noexcept {
  result.error = platform::SocketErrorFromErrno(errnoValue);
  switch (errnoValue) {
    case EAGAIN:
    case EINTR:
      return io_attempt_t::WouldBlock;
    case ENOMEM:
    case ENOBUFS:
      return io_attempt_t::Exhausted;
    case EBADF:
    case ENOTSOCK:
    case EINVAL:
    case EFAULT:
      return io_attempt_t::Refused;
    default:
      return io_attempt_t::Done;
  }
}

io_attempt_t TrySendTo(int handle, const SDatagramAddress& target, const std::uint8_t* data, std::size_t size,
                       SIoResult& result) noexcept {
  ssize_t sent = 0;
  do {
    sent = ::sendto(handle, data, size, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&target.address),
                    target.length);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    return Judge(errno, result);
  }
  result.bytes = static_cast<std::uint32_t>(sent);
  return io_attempt_t::Done;
}

std::string NumericName(const SDatagramAddress& address) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> service{};
  ::getnameinfo(reinterpret_cast<const sockaddr*>(&address.address), address.length, host.data(), host.size(),
                service.data(), service.size(), NI_NUMERICHOST | NI_NUMERICSERV);
  return std::string(host.data()) + ":" + service.data();
}

exc::win_sys_exc_t SendFailure(const SDatagramAddress& target, platform::error_t error) {
  return {exc::FormatText("Failed to send data using UDP socket. Target address: \"%1\".", NumericName(target)), error};
}

}  // namespace

/// The pending receive; holds the source's address.
class CUdpSocket::CReceiveEvent : public CIoEventHandler {
 public:
  CReceiveEvent(CUdpSocket& socket, std::uint8_t* buffer, std::size_t size)
      : CIoEventHandler(&socket, io_direction_t::Read), socket_(socket), buffer_(buffer), size_(size) {}

  io_attempt_t Attempt(int handle, SIoResult& result) override {
    ssize_t received = 0;
    do {
      source_.length = sizeof(source_.address);
      received = ::recvfrom(handle, buffer_, size_, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&source_.address),
                            &source_.length);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
      return Judge(errno, result);
    }
    result.bytes = static_cast<std::uint32_t>(received);
    return io_attempt_t::Done;
  }

  void OnComplete(CIoObject&, platform::error_t error, std::uint32_t bytes) override {
    // What fails here, or is said about an earlier datagram, costs one datagram; the socket is well.
    try {
      if (error == platform::error::Success) {
        socket_.handler_.OnDatagramReceived(source_, bytes);
      } else {
        g_nfs_log.Error("UDP receive failed.", exc::win_sys_exc_t("UDP receive failed.", error));
      }
    } catch (const std::exception& failure) {
      g_nfs_log.Error("Exception while handling I/O event.", failure);
    }
    socket_.Receive(buffer_, size_);
  }

 private:
  CUdpSocket& socket_;
  std::uint8_t* const buffer_;
  const std::size_t size_;
  SDatagramAddress source_;
};

/// The pending send.
class CUdpSocket::CIOEvent : public CIoEventHandler {
 public:
  CIOEvent(CUdpSocket& socket, const SDatagramAddress& target, const std::uint8_t* data, std::size_t size)
      : CIoEventHandler(&socket, io_direction_t::Write), socket_(socket), target_(target), data_(data), size_(size) {}

  io_attempt_t Attempt(int handle, SIoResult& result) override {
    return TrySendTo(handle, target_, data_, size_, result);
  }
  void OnComplete(CIoObject&, platform::error_t error, std::uint32_t) override {
    try {
      if (error != platform::error::Success) {
        g_nfs_log.Error("Exception while handling I/O event.", SendFailure(target_, error));
      }
    } catch (const std::exception&) {
      // There is no memory for the line; those behind this datagram wait for its end.
    }
    socket_.handler_.OnDatagramSent();
  }

 private:
  CUdpSocket& socket_;
  const SDatagramAddress target_;
  const std::uint8_t* const data_;
  const std::size_t size_;
};

CUdpSocket::CUdpSocket(IUdpEventsHandler& handler, const SPortBinding& binding)
    : CSocket(MakeSocket()), handler_(handler), boundPort_(BindUdpPort(GetHandle(), binding)) {}

void CUdpSocket::Receive(std::uint8_t* buffer, std::size_t size) {
  platform::error_t error = platform::error::Success;
  Port()->StartDespiteShortage([&] { error = StartIo(new CReceiveEvent(*this, buffer, size)); });
  if (error != platform::error::Success) {
    throw exc::win_sys_exc_t("UDP receive failed.", error);
  }
}

bool CUdpSocket::Send(const SDatagramAddress& target, const std::uint8_t* data, std::size_t size) {
  SIoResult result;
  const io_attempt_t attempt = TrySendTo(GetHandle(), target, data, size, result);
  if (attempt == io_attempt_t::WouldBlock || attempt == io_attempt_t::Exhausted) {
    const platform::error_t error =
        StartIo(new CIOEvent(*this, target, data, size), attempt == io_attempt_t::Exhausted);
    if (error == platform::error::Success) {
      return false;
    }
    result.error = error;
  }
  if (result.error != platform::error::Success) {
    throw SendFailure(target, result.error);
  }
  return true;
}

}  // namespace win
