// Taking a port, for listeners and for the UDP socket.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace win {

using pause_t = std::function<void(std::chrono::milliseconds)>;

/// Waits in real time.
void PauseForReal(std::chrono::milliseconds duration);

struct SPortBinding {
  std::uint16_t port = 0;  ///< 0 takes one from the system.
  std::string label;       ///< For the log.
  /// A port that is taken is tried 12 times with pauses of five seconds, instead of once.
  bool waitWhileTaken = false;
  pause_t pause = PauseForReal;
};

/// Binds the socket to the port on all IPv4 interfaces and, for TCP, listens. Throws win_sys_exc_t. The port that was
/// bound, in host order.
std::uint16_t BindTcpPort(int handle, const SPortBinding& binding);
std::uint16_t BindUdpPort(int handle, const SPortBinding& binding);

}  // namespace win
