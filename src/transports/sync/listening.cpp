#include "transports/sync/listening.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <limits>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/error.h"
#include "transports/sockets/congestion_control.h"

namespace {

[[noreturn]] void ThrowSocketError(const char* text) {
  throw exc::win_sys_exc_t(text, platform::SocketErrorFromErrno(errno));
}

/// What the dispatcher finds ready may be gone when it comes for it.
void NeverWait(const CSocketIP& socket, const char* failureText) {
  const int flags = ::fcntl(socket.Socket(), F_GETFL);
  if (flags < 0 || ::fcntl(socket.Socket(), F_SETFL, flags | O_NONBLOCK) != 0)
    ThrowSocketError(failureText);
}

}  // namespace

void ReuseAddress(const CSocketIP& socket, std::uint16_t port) {
  const int on = 1;
  if (::setsockopt(socket.Socket(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0)
    g_nfs_log.Warning("TCP port %1 can not be reused", port);
}

void CreateEventAndListen(CSocketIP& socket, std::uint16_t port) {
  ReuseAddress(socket, port);
  try {
    socket.Bind(port);
  } catch (const exc::win_sys_exc_t& failure) {
    throw exc::win_sys_exc_t("Cannot bind socket in CreateEventAndListen()", failure.Code());
  }
  NeverWait(socket, "WSAEventSelect failed in CreateEventAndListen()");
  AvoidPacing(socket.Socket());
  if (::listen(socket.Socket(), std::numeric_limits<int>::max()) != 0)
    ThrowSocketError("Cannot listen socket in CreateEventAndListen");
}

void CreateEventAndBind(CSocketIP& socket, std::uint16_t port) {
  socket.Bind(port);
  NeverWait(socket, "WSAEventSelect failed in CreateEventAndBind()");
}
