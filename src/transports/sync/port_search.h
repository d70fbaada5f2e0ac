// Which port to take when the wanted one is taken.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

using port_probe_t = std::function<bool(std::uint16_t port)>;
using port_pause_t = std::function<void(std::chrono::milliseconds duration)>;

/// True when the port can be bound on all interfaces for TCP and for UDP. It is not bound afterwards: another program
/// may take it before this one does. Throws when there are no sockets.
bool IsPortFree(std::uint16_t port);

/// Waits in real time.
void PauseForPort(std::chrono::milliseconds duration);

/// The wanted port, or the next above it that is free; each is tried three times. Port 65535 is never tried. Throws
/// runtime_exc_t "No port found.".
std::uint16_t FindFreePort(std::uint16_t wanted, const port_probe_t& isFree = IsPortFree,
                           const port_pause_t& pause = PauseForPort);

/// One try, told in the log as each try of a search is.
bool TryPort(std::uint16_t port, const port_probe_t& isFree = IsPortFree);
