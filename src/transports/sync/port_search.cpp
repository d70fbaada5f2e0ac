#include "transports/sync/port_search.h"

#include <thread>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/sockets/socket_ip.h"
#include "transports/sync/listening.h"

namespace {

constexpr std::uint16_t LastPort = 65535;
constexpr int Tries = 3;
constexpr std::chrono::milliseconds TryPause{1};

bool CanBind(bool tcp, std::uint16_t port) {
  CSocketIP socket(tcp);
  if (tcp)
    ReuseAddress(socket, port);
  try {
    socket.Bind(port);
    return true;
  } catch (const exc::win_sys_exc_t&) {
    return false;
  }
}

}  // namespace

bool IsPortFree(std::uint16_t port) {
  return CanBind(true, port) && CanBind(false, port);
}

void PauseForPort(std::chrono::milliseconds duration) {
  std::this_thread::sleep_for(duration);
}

bool TryPort(std::uint16_t port, const port_probe_t& isFree) {
  g_nfs_log.Info("Try to bind [%1] port.", port);
  return isFree(port);
}

std::uint16_t FindFreePort(std::uint16_t wanted, const port_probe_t& isFree, const port_pause_t& pause) {
  for (std::uint16_t port = wanted; port < LastPort; ++port) {
    for (int i = 0; i < Tries; ++i) {
      if (TryPort(port, isFree))
        return port;
      pause(TryPause);
    }
    g_nfs_log.Warning("Port [%1] is busy. Trying to bind to next one.", port);
  }
  throw exc::runtime_exc_t("No port found.");
}
