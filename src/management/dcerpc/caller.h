// Who stands behind a call.
#pragma once

#include <cstdint>
#include <string>

namespace dcerpc {

/// How much of each PDU the security context covers (C706, 13.1.2.1). None is a peer without authentication.
enum class auth_level_t : std::uint8_t { None = 1, Connect = 2, Call = 3, Packet = 4, Integrity = 5, Privacy = 6 };

/// The caller as the transport knows it; a value.
struct SCaller {
  /// The local account that the peer was mapped to; empty for a peer that proved none, or whose name maps to none.
  std::string account;
  /// The name that the peer proved, as the mechanism spells it; for messages alone.
  std::string principal;
  /// Where the call came from, "10.1.2.3:50123" or "unix:1234" with the peer's process; for messages, and for
  /// telling callers of the local socket by its "unix:".
  std::string origin;
  /// Privacy on a Unix socket: nobody stands between its ends.
  auth_level_t level = auth_level_t::None;
  /// A peer that proved an identity: an established security context, or the credentials of a Unix socket.
  bool authenticated = false;
};

}  // namespace dcerpc
