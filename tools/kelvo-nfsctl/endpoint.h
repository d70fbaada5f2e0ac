// Where the service listens.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nfsctl {

inline constexpr std::uint16_t DefaultPort = 6161;

struct SEndpoint {
  /// The socket's path, for a Unix endpoint alone.
  std::string path;
  std::string host;
  std::uint16_t port = DefaultPort;

  bool IsLocal() const { return host.empty(); }
  bool operator==(const SEndpoint&) const = default;
};

/// The Unix socket of this machine's service.
SEndpoint DefaultEndpoint();

/// "unix:PATH", or "tcp:HOST" with ":PORT" where it is another than the default; an IPv6 address that is followed by a
/// port stands in brackets. Throws usage_error_t.
SEndpoint ParseEndpoint(std::string_view text);

}  // namespace nfsctl
