#include "transports/sockets/congestion_control.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <exception>
#include <string_view>

#include "foundation/log.h"

std::string CongestionControl(int socket) {
  std::array<char, 16> name{};
  socklen_t length = name.size();
  if (::getsockopt(socket, IPPROTO_TCP, TCP_CONGESTION, name.data(), &length) != 0)
    return {};
  return {name.data(), ::strnlen(name.data(), name.size())};
}

void AvoidPacing(int listener) noexcept {
  try {
    // And its later versions.
    constexpr std::string_view Pacing = "bbr";
    const std::string chosen = CongestionControl(listener);
    if (!chosen.starts_with(Pacing))
      return;
    // What is not in the system's list of allowed ones is for the administrator alone.
    for (const std::string_view other : {"cubic", "reno"}) {
      if (::setsockopt(listener, IPPROTO_TCP, TCP_CONGESTION, other.data(), static_cast<socklen_t>(other.size())) ==
          0) {
        g_nfs_log.Info("TCP congestion control is \"%1\" instead of \"%2\", which paces what is sent.", other, chosen);
        return;
      }
    }
    g_nfs_log.Warning("TCP congestion control \"%1\" paces what is sent and can not be changed: reads will be slow.",
                      chosen);
  } catch (const std::exception&) {
    // Out of memory for a name or a line of the log: the connections pace.
  }
}
