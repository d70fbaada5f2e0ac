// The authenticated side of an association: what proves the peer and protects its PDUs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "management/dcerpc/caller.h"
#include "management/dcerpc/rpc_interface.h"

namespace dcerpc {

/// Authentication types of the security trailer.
enum class auth_type_t : std::uint8_t { None = 0, Negotiate = 9, Ntlm = 10, Kerberos = 16 };

/// One fragment that is complete but for the auth_value at its end, and the parts that protection treats
/// differently: header, stub with its padding, security trailer (8 bytes), auth_value.
struct SFragment {
  std::span<std::uint8_t> pdu;
  std::size_t stubOffset = 0;
  /// The stub and the padding after it, bytes.
  std::size_t stubSize = 0;
  /// The length of the auth_value, which ends the PDU.
  std::size_t authSize = 0;
  /// Both sides announced that header and trailer are covered, too.
  bool headerSigned = false;
};

/// The security context of one association. Used by one thread at a time: sequence numbers follow the order of calls.
class ISecurityContext {
 public:
  virtual ~ISecurityContext() = default;

  /// The next leg of the handshake: takes the peer's token, gives the answer, which may be empty. The initiator's first
  /// leg takes an empty token. Throws exc::runtime_exc_t when the peer is refused; the context is of no use then.
  virtual bytes_t Step(bytes_view_t token) = 0;
  virtual bool IsEstablished() const = 0;

  /// The size of the auth_value that protects a stub of this size (padding included). Only once established, and with
  /// a level of Packet or above.
  virtual std::size_t SignatureSize(std::size_t stubSize) const = 0;
  /// Fills the auth_value and, with Privacy, encrypts the stub in place.
  virtual void Protect(const SFragment& fragment) = 0;
  /// Checks the auth_value and, with Privacy, decrypts the stub in place. Throws exc::runtime_exc_t when it is wrong.
  virtual void Unprotect(const SFragment& fragment) = 0;

  /// The name that the peer proved, as the mechanism spells it.
  virtual std::string PeerName() const = 0;
  /// The local account that the name maps to, or nothing.
  virtual std::string PeerAccount() const = 0;
};

/// Makes the contexts of a listener. Constant after construction; any thread.
class ISecurityProvider {
 public:
  virtual ~ISecurityProvider() = default;
  /// Throws exc::runtime_exc_t for a type that is not served here.
  virtual std::unique_ptr<ISecurityContext> Accept(auth_type_t type, auth_level_t level) = 0;
};

}  // namespace dcerpc
