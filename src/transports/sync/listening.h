// Sockets that the dispatcher waits for.
#pragma once

#include <cstdint>

#include "transports/sockets/socket_ip.h"

/// A port that connections of an earlier run still hold is no port that is taken. A failure is logged.
void ReuseAddress(const CSocketIP& socket, std::uint16_t port);

/// Both bind to all interfaces and leave the socket as one that never waits. Throw win_sys_exc_t with their own texts.
void CreateEventAndListen(CSocketIP& socket, std::uint16_t port);
void CreateEventAndBind(CSocketIP& socket, std::uint16_t port);
