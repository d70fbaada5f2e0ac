#include "transports/async/port_binding.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <limits>
#include <thread>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/error.h"
#include "transports/sockets/congestion_control.h"

namespace win {
namespace {

constexpr int BindTries = 12;
constexpr std::chrono::milliseconds BindPause{5000};

void Bind(int handle, const SPortBinding& binding) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(binding.port);
  for (int tries = 1; ::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0; ++tries) {
    const platform::error_t error = platform::SocketErrorFromErrno(errno);
    if (!binding.waitWhileTaken || error != platform::error::WsaAddressInUse || tries == BindTries) {
      throw exc::win_sys_exc_t(exc::FormatText("Failed to bind socket object to port \"%1\".", binding.port), error);
    }
    g_nfs_log.Warning("Port %1 already in use, waiting", binding.port);
    binding.pause(BindPause);
  }
}

std::uint16_t BoundPort(int handle, const SPortBinding& binding) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (::getsockname(handle, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    g_nfs_log.Warning("Socket listen at port %1 failed", binding.port);
    return binding.port;
  }
  return ntohs(address.sin_port);
}

void LogListening(std::uint16_t port, const SPortBinding& binding) {
  g_nfs_log.Info("Listening port \"%1\" (%2).", port, binding.label);
}

}  // namespace

void PauseForReal(std::chrono::milliseconds duration) {
  std::this_thread::sleep_for(duration);
}

std::uint16_t BindTcpPort(int handle, const SPortBinding& binding) {
  const int on = 1;
  if (::setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
    g_nfs_log.Warning("TCP port %1 can not be reused", binding.port);
  }
  Bind(handle, binding);
  const std::uint16_t port = BoundPort(handle, binding);
  AvoidPacing(handle);
  if (::listen(handle, std::numeric_limits<int>::max()) != 0) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to start port listening. Port: \"%1\".", port),
                             platform::SocketErrorFromErrno(errno));
  }
  LogListening(port, binding);
  return port;
}

std::uint16_t BindUdpPort(int handle, const SPortBinding& binding) {
  // SO_REUSEADDR stays off: on UDP it would let another socket share the port and take our datagrams, and a port that
  // is taken would look free.
  Bind(handle, binding);
  const std::uint16_t port = BoundPort(handle, binding);
  LogListening(port, binding);
  return port;
}

}  // namespace win
