#include "transports/async/tcp_stream.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "foundation/exc.h"

namespace win {
namespace {

int MakeSocket() {
  const int handle = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
  if (handle < 0) {
    throw exc::win_sys_exc_t("Socket creation failed", platform::SocketErrorFromErrno(errno));
  }
  return handle;
}

/// What the failure of a transfer means: most are the end of the connection, the rest is a call that was wrong.
io_attempt_t Judge(int errnoValue, SIoResult& result) noexcept {
  switch (errnoValue) {
    case EAGAIN:
    case EINTR:
      return io_attempt_t::WouldBlock;
    case ENOMEM:
    case ENOBUFS:
      result.error = platform::SocketErrorFromErrno(errnoValue);
      return io_attempt_t::Exhausted;
    case ECONNRESET:
    case EPIPE:
      result.error = platform::error::NetnameDeleted;
      return io_attempt_t::Done;
    case EBADF:
    case ENOTSOCK:
    case ENOTCONN:
    case EINVAL:
    case EFAULT:
    case ECONNABORTED:
      result.error = platform::SocketErrorFromErrno(errnoValue);
      return io_attempt_t::Refused;
    default:
      result.error = platform::SocketErrorFromErrno(errnoValue);
      return io_attempt_t::Done;
  }
}

template <typename Transfer>
io_attempt_t Move(Transfer transfer, SIoResult& result) noexcept {
  ssize_t moved = 0;
  do {
    moved = transfer();
  } while (moved < 0 && errno == EINTR);
  if (moved < 0) {
    return Judge(errno, result);
  }
  result.bytes = static_cast<std::uint32_t>(moved);
  return io_attempt_t::Done;
}

msghdr Message(iovec* pieces, std::size_t count) noexcept {
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = count;
  return message;
}

}  // namespace

CTcpStream::CTcpStream() : CSocket(MakeSocket()) {}

io_attempt_t CTcpStream::TryReceive(int handle, iovec* pieces, std::size_t count, SIoResult& result) noexcept {
  msghdr message = Message(pieces, count);
  return Move([&] { return ::recvmsg(handle, &message, MSG_DONTWAIT); }, result);
}

io_attempt_t CTcpStream::TryReceivePipe(int handle, platform::kernel_pipe_t& pipe, std::size_t length, bool& inMemory,
                                        SIoResult& result) noexcept {
  std::size_t moved = 0;
  const platform::error_t error = pipe.TakeFromSocket(handle, length, moved);
  result.bytes = static_cast<std::uint32_t>(moved);
  inMemory = false;
  switch (error) {
    case platform::error::Success:
    case platform::error::BrokenPipe:
      // Without any bytes the stream is over, be it by an end or by a reset.
      return io_attempt_t::Done;
    case platform::error::PipeBusy: {
      // Nothing has come; or the pipe is full, which senders in small pieces bring about, and then it says so whatever
      // has become of the stream.
      std::uint8_t byte = 0;
      const bool isFull =
          pipe.Held() != 0 && (::recv(handle, &byte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0 || errno != EAGAIN);
      inMemory = isFull;
      return isFull ? io_attempt_t::Done : io_attempt_t::WouldBlock;
    }
    case platform::error::CallNotImplemented:
      inMemory = true;
      return io_attempt_t::Done;
    default:
      return Judge(errno, result);
  }
}

io_attempt_t CTcpStream::TrySend(int handle, iovec* pieces, std::size_t count, bool more, SIoResult& result) noexcept {
  const msghdr message = Message(pieces, count);
  const int flags = MSG_DONTWAIT | MSG_NOSIGNAL | (more ? MSG_MORE : 0);
  return Move([&] { return ::sendmsg(handle, &message, flags); }, result);
}

io_attempt_t CTcpStream::TrySendPipe(int handle, platform::kernel_pipe_t& pipe, std::size_t length, bool more,
                                     SIoResult& result) noexcept {
  return Move([&] { return pipe.GiveToSocket(handle, length, more); }, result);
}

}  // namespace win
