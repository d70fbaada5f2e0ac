// A TCP socket over IPv4 with overlapped operations.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <utility>

#include "platform/kernel_pipe.h"
#include "transports/async/socket.h"

namespace win {

/// One side of a TCP connection, or a listener. Descriptors do not block and are not inherited.
class CTcpStream : public CSocket {
 public:
  /// One receive or send. call_on_io is asked for Attempt(handle, result), and is called with error and bytes when the
  /// operation is over.
  template <typename call_on_io>
  class CIOEvent : public CIoEventHandler {
   public:
    CIOEvent(boost::intrusive_ptr<CTcpStream> stream, io_direction_t direction, call_on_io call)
        : CIoEventHandler(std::move(stream), direction), call_(std::move(call)) {}
    io_attempt_t Attempt(int handle, SIoResult& result) override { return call_.Attempt(handle, result); }
    void OnComplete(CIoObject&, platform::error_t error, std::uint32_t bytes) override { call_(error, bytes); }

   private:
    call_on_io call_;
  };

  /// A socket of its own. Throws win_sys_exc_t.
  CTcpStream();

 protected:
  /// Without a descriptor until an accept brings one.
  struct SUnconnected {};
  explicit CTcpStream(SUnconnected) noexcept : CSocket(-1) {}

  /// One receive into up to count pieces; 64 when the peer has gone.
  static io_attempt_t TryReceive(int handle, iovec* pieces, std::size_t count, SIoResult& result) noexcept;
  /// One receive of up to length bytes into a pipe; none when the stream is over. Where the pipe cannot take them,
  /// inMemory is set: nothing was taken, and they are to be received into memory.
  static io_attempt_t TryReceivePipe(int handle, platform::kernel_pipe_t& pipe, std::size_t length, bool& inMemory,
                                     SIoResult& result) noexcept;
  /// One gather send of count pieces; more may follow them at once.
  static io_attempt_t TrySend(int handle, iovec* pieces, std::size_t count, bool more, SIoResult& result) noexcept;
  /// One send of what a pipe holds, at most length bytes.
  static io_attempt_t TrySendPipe(int handle, platform::kernel_pipe_t& pipe, std::size_t length, bool more,
                                  SIoResult& result) noexcept;
};

}  // namespace win
