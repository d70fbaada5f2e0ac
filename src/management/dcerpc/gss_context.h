// Security contexts over the GSS-API: the handshake of both sides, and the acceptor.
#pragma once

#include <memory>
#include <string>

#include "management/dcerpc/account_map.h"
#include "management/dcerpc/gss_support.h"
#include "management/dcerpc/message_protection.h"
#include "management/dcerpc/ntlm_protection.h"
#include "management/dcerpc/ntlm_user_file.h"
#include "management/dcerpc/security_context.h"

namespace dcerpc {

/// What both sides have in common: legs until the library says that the context stands, a check that it is what the
/// authentication type promised, and the protection that fits the mechanism. A context that failed once, in a leg or in
/// a fragment, refuses everything after it.
class CGssContext : public ISecurityContext {
 public:
  bytes_t Step(bytes_view_t token) final;
  bool IsEstablished() const final { return state_ == state_t::Established; }
  std::size_t SignatureSize(std::size_t stubSize) const final;
  void Protect(const SFragment& fragment) final;
  void Unprotect(const SFragment& fragment) final;
  std::string PeerName() const final { return peerName_; }

 protected:
  /// The name is the peer's where it is known from the start, and else empty: it is asked for then.
  CGssContext(side_t side, auth_type_t type, auth_level_t level, std::string peerName)
      : side_(side), type_(type), level_(level), peerName_(std::move(peerName)) {}

  struct SLeg {
    OM_uint32 major = 0;
    OM_uint32 minor = 0;
  };
  /// One call of the library with the peer's token, which may be empty on the initiator's first leg.
  virtual SLeg Advance(gss_ctx_id_t* context, bytes_view_t token, gss_buffer_t answer) = 0;
  /// The context stands; the name is the initiator's, and empty on its own side.
  virtual void OnEstablished(gss_OID mechanism, gss_name_t initiator);

  auth_type_t Type() const { return type_; }
  auth_level_t Level() const { return level_; }

 private:
  enum class state_t : std::uint8_t { Handshake, Established, Failed };

  bytes_t TakeLeg(bytes_view_t token);
  void NoteToken(bytes_view_t token, bool sent);
  void Establish();
  void CheckNtlmFlags() const;
  std::unique_ptr<IMessageProtection> MakeProtection(gss_OID mechanism, OM_uint32 flags);
  IMessageProtection& Protection() const;

  const side_t side_;
  const auth_type_t type_;
  const auth_level_t level_;
  state_t state_ = state_t::Handshake;
  gss::context_t context_;
  /// NegotiateFlags of the CHALLENGE, once it went by.
  std::uint32_t ntlmFlags_ = 0;
  CNtlmProtection::SFirstNumbers firstNumbers_;
  std::string peerName_;
  std::unique_ptr<IMessageProtection> protection_;
};

/// The side of the server.
class CGssAcceptor : public CGssContext {
 public:
  /// The level is Connect, Packet, Integrity or Privacy.
  CGssAcceptor(auth_type_t type, auth_level_t level, std::shared_ptr<const CAccountMap> accounts,
               std::shared_ptr<CNtlmUserFile> users);

  std::string PeerAccount() const override { return account_; }

 protected:
  SLeg Advance(gss_ctx_id_t* context, bytes_view_t token, gss_buffer_t answer) override;
  void OnEstablished(gss_OID mechanism, gss_name_t initiator) override;

 private:
  bytes_t PrepareFirstToken(bytes_view_t token);
  bytes_t PrepareNegotiation(bytes_view_t token);
  gss::credential_t NtlmCredential(gss_OID mechanism);

  const std::shared_ptr<const CAccountMap> accounts_;
  const std::shared_ptr<CNtlmUserFile> users_;
  std::shared_ptr<const SNtlmUsers> usersInUse_;
  bool started_ = false;
  gss::credential_t credential_;
  std::string account_;
};

}  // namespace dcerpc
