// Message protection with an established context of Kerberos.
#pragma once

#include "management/dcerpc/gss_support.h"
#include "management/dcerpc/message_protection.h"

namespace dcerpc {

/// Protection by the library, DCE style: all that belongs to the mechanism lies in the auth_value (RFC 4121, MS-KILE).
/// Header and trailer of the PDU are covered only where both sides announced it.
class CKerberosProtection : public IMessageProtection {
 public:
  /// The context is the caller's, and outlives this.
  CKerberosProtection(gss_ctx_id_t context, auth_level_t level);

  std::size_t SignatureSize(std::size_t stubSize) const override;
  void Protect(const SFragment& fragment) override;
  void Unprotect(const SFragment& fragment) override;

 private:
  gss_ctx_id_t context_;
  const bool encrypts_;
};

}  // namespace dcerpc
