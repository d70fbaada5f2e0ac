#include "transports/async/tcp_acceptor.h"

#include <cerrno>

namespace win {

io_attempt_t TryAccept(int listener, int& handle, sockaddr_storage& peer, socklen_t& peerLength, SIoResult& result) {
  for (;;) {
    peerLength = sizeof(peer);
    handle = ::accept4(listener, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (handle >= 0) {
      return io_attempt_t::Done;
    }
    switch (errno) {
      case EINTR:
        break;
      case EAGAIN:
        return io_attempt_t::WouldBlock;
      // The connection that stood first ended before it was ours, in one way or another; the listener is well.
      case ECONNABORTED:
      case ECONNRESET:
      case EPROTO:
        result.error = platform::error::WsaConnectionReset;
        return io_attempt_t::Refused;
      case EBADF:
      case EINVAL:
      case ENOTSOCK:
      case EOPNOTSUPP:
      case EFAULT:
        result.error = platform::SocketErrorFromErrno(errno);
        return io_attempt_t::Refused;
      // Out of descriptors or memory, a network that is down, a security module's refusal: none is the listener's end.
      default:
        result.error = platform::SocketErrorFromErrno(errno);
        return io_attempt_t::Exhausted;
    }
  }
}

}  // namespace win
