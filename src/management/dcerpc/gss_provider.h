// The security contexts of the management endpoint.
#pragma once

#include <memory>
#include <string>

#include "management/dcerpc/account_map.h"
#include "management/dcerpc/ntlm_user_file.h"
#include "management/dcerpc/security_context.h"

namespace dcerpc {

/// Makes acceptors over the GSS-API. The users of NTLM come from CNtlmUserFile, the keys of Kerberos from the keytab of
/// KRB5_KTNAME or the system's; both are looked at anew for each context. Any thread.
class CGssProvider : public ISecurityProvider {
 public:
  explicit CGssProvider(std::shared_ptr<const CAccountMap> accounts);

  /// The type's mechanism is there: known to the library and loaded. Negotiate needs one of the others below it. Keys
  /// and users may still come and go. Otherwise the error, unless null, tells why.
  static bool IsAvailable(auth_type_t type, std::string* error);

  /// Takes the levels Connect to Privacy, and Call for Packet. Throws for others, and for a type that is not available.
  std::unique_ptr<ISecurityContext> Accept(auth_type_t type, auth_level_t level) override;

 private:
  const std::shared_ptr<const CAccountMap> accounts_;
  const std::shared_ptr<CNtlmUserFile> users_;
};

/// The level that a context works at: Call becomes Packet, as connection-oriented transports have it (C706, 13.1.2.1).
/// Throws exc::runtime_exc_t for None and for what is no level.
auth_level_t EffectiveLevel(auth_level_t level);

}  // namespace dcerpc
