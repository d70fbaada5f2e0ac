// The congestion control that a test wants a socket to begin with.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <string_view>

namespace test {

/// False where the system does not have it, or keeps it for administrators.
inline bool ChooseCongestionControl(int socket, std::string_view name) {
  return ::setsockopt(socket, IPPROTO_TCP, TCP_CONGESTION, name.data(), static_cast<socklen_t>(name.size())) == 0;
}

}  // namespace test
