// The client's side of a security context.
#pragma once

#include <optional>
#include <string>

#include "management/dcerpc/gss_context.h"

namespace dcerpc {

/// Whom a client wants to reach, and as whom; a value.
struct SInitiatorSettings {
  auth_type_t type = auth_type_t::Negotiate;
  auth_level_t level = auth_level_t::Privacy;
  /// The name of the server's host, as its key and its tickets have it.
  std::string host;
  /// Empty: the tickets of the credential cache (KRB5CCNAME). Else "DOM\user", "user", or for Kerberos "user@REALM".
  std::string user;
  std::string password;
};

/// Proves a client to host/NAME. With a user Negotiate offers NTLM alone, else Kerberos alone; the library asks the KDC
/// of the default realm for the user all the same, which can take seconds where there is none: Ntlm spares that. NTLM
/// does not prove the server.
class CGssInitiator : public CGssContext {
 public:
  /// Throws exc::runtime_exc_t when there are no credentials.
  explicit CGssInitiator(const SInitiatorSettings& settings);

  /// A client maps no one.
  std::string PeerAccount() const override { return {}; }

 protected:
  SLeg Advance(gss_ctx_id_t* context, bytes_view_t token, gss_buffer_t answer) override;

 private:
  gss::name_t target_;
  gss::credential_t credential_;
};

}  // namespace dcerpc
