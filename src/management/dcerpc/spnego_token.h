// The first token of SPNEGO (RFC 4178 4.2.1), as far as the acceptor looks into it.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "management/dcerpc/rpc_interface.h"

namespace dcerpc {

/// A NegTokenInit.
struct SNegTokenInit {
  /// The contents of the object identifiers, the initiator's favourite first.
  std::vector<bytes_t> mechanisms;
  /// The first token of the favourite; empty when the initiator sent none.
  bytes_t mechToken;

  /// Nothing for a token that is no well-formed NegTokenInit.
  static std::optional<SNegTokenInit> Decode(bytes_view_t token);
};

/// The same NegTokenInit with another mechToken; all else stays as it is. Gives the token back unchanged when it is
/// none, or has no mechToken.
bytes_t ReplaceMechToken(bytes_view_t token, bytes_view_t mechToken);

/// A token of Kerberos without the framing of RFC 2743 3.1, where it has that and the mark of an AP-REQ; any other
/// token as it is. With DCE style the library takes the bare form alone, and some initiators frame it nevertheless.
bytes_view_t UnframedApReq(bytes_view_t token);

}  // namespace dcerpc
