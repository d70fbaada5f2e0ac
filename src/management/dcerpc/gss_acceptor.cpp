#include <algorithm>
#include <string_view>

#include "foundation/exc.h"
#include "management/dcerpc/gss_context.h"
#include "management/dcerpc/spnego_token.h"

namespace dcerpc {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view NtlmNegotiateMark = "NTLMSSP\0\1\0\0\0"sv;
constexpr std::size_t ShortestNegotiate = 16;
// The library refuses shorter ones, though the fields after the flags may be left out.
constexpr std::size_t FullNegotiate = 40;

// What some initiators offer as Kerberos beside its own identifier, or instead of it.
constexpr std::string_view MisspeltKerberos = "\x2a\x86\x48\x82\xf7\x12\x01\x02\x02"sv;

std::string_view AsText(bytes_view_t bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool IsNtlm(bytes_view_t token) {
  return AsText(token).starts_with(NtlmNegotiateMark);
}

bytes_t PadNegotiate(bytes_view_t token) {
  bytes_t padded(token.begin(), token.end());
  if (IsNtlm(token) && token.size() >= ShortestNegotiate && token.size() < FullNegotiate)
    padded.resize(FullNegotiate);
  return padded;
}

bool IsMechanism(bytes_view_t identifier, gss_OID mechanism) {
  return AsText(identifier) == std::string_view(static_cast<const char*>(mechanism->elements), mechanism->length);
}

gss_OID_set_desc SetOf(gss_OID mechanism) {
  return {1, mechanism};
}

/// Any key of the keytab serves, whatever name the initiator asked for. Empty when there is no key.
gss::credential_t KerberosCredential(gss_OID mechanism) {
  gss_OID_set_desc mechanisms = SetOf(mechanism);
  gss::credential_t credential;
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms, GSS_C_ACCEPT,
                                           credential.Out(), nullptr, nullptr);
  if (major != GSS_S_COMPLETE)
    return {};
  return credential;
}

/// Leaves this mechanism alone to be chosen in a negotiation. Gives an empty credential when it has none for it.
gss::credential_t Restricted(gss::credential_t credential, gss_OID mechanism) {
  gss_OID_set_desc mechanisms = SetOf(mechanism);
  OM_uint32 minor = 0;
  if (credential.IsEmpty() || gss_set_neg_mechs(&minor, credential.Get(), &mechanisms) != GSS_S_COMPLETE)
    return {};
  return credential;
}

}  // namespace

CGssAcceptor::CGssAcceptor(auth_type_t type, auth_level_t level, std::shared_ptr<const CAccountMap> accounts,
                           std::shared_ptr<CNtlmUserFile> users)
    : CGssContext(side_t::Acceptor, type, level, {}), accounts_(std::move(accounts)), users_(std::move(users)) {}

gss::credential_t CGssAcceptor::NtlmCredential(gss_OID mechanism) {
  // Read when the last token comes.
  usersInUse_ = users_->Usable();
  gss_key_value_element_desc element{"ntlmssp_keyfile", usersInUse_->path.c_str()};
  const gss_key_value_set_desc store{1, &element};
  gss_OID_set_desc mechanisms = SetOf(mechanism);
  // Without a name of this form the mechanism makes a user's credential, and falls over it when a token comes.
  const gss::name_t name = gss::ImportName("host", GSS_C_NT_HOSTBASED_SERVICE);
  gss::credential_t credential;
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_acquire_cred_from(&minor, name.Get(), GSS_C_INDEFINITE, &mechanisms, GSS_C_ACCEPT, &store,
                                                credential.Out(), nullptr, nullptr);
  if (major != GSS_S_COMPLETE)
    return {};
  return credential;
}

bytes_t CGssAcceptor::PrepareFirstToken(bytes_view_t token) {
  if (Type() == auth_type_t::Negotiate && !IsNtlm(token))
    return PrepareNegotiation(token);
  credential_ = Type() == auth_type_t::Kerberos ? KerberosCredential(gss::KerberosMechanism())
                                                : NtlmCredential(gss::NtlmMechanism());
  return PadNegotiate(token);
}

bytes_t CGssAcceptor::PrepareNegotiation(bytes_view_t token) {
  const std::optional<SNegTokenInit> init = SNegTokenInit::Decode(token);
  if (!init)
    throw exc::runtime_exc_t("The token opens no negotiation.");
  // The library chooses the first of these that the credential has. One credential cannot serve both: that of NTLM
  // must have a name, and with a name Kerberos would take the keys of that name alone.
  for (const bytes_t& identifier : init->mechanisms) {
    if (IsMechanism(identifier, gss::KerberosMechanism()) || AsText(identifier) == MisspeltKerberos) {
      credential_ = Restricted(KerberosCredential(gss::SpnegoMechanism()), gss::KerberosMechanism());
    } else if (IsMechanism(identifier, gss::NtlmMechanism())) {
      credential_ = Restricted(NtlmCredential(gss::SpnegoMechanism()), gss::NtlmMechanism());
    }
    if (!credential_.IsEmpty())
      break;
  }
  const bytes_t padded = PadNegotiate(init->mechToken);
  const bytes_view_t bare = UnframedApReq(padded);
  return bare.size() == init->mechToken.size() ? bytes_t(token.begin(), token.end()) : ReplaceMechToken(token, bare);
}

CGssContext::SLeg CGssAcceptor::Advance(gss_ctx_id_t* context, bytes_view_t token, gss_buffer_t answer) {
  bytes_t prepared(token.begin(), token.end());
  if (!started_) {
    started_ = true;
    prepared = PrepareFirstToken(token);
    // The library would take any mechanism and any user where it is given no credential.
    if (credential_.IsEmpty())
      throw exc::runtime_exc_t("There are no keys and no users to check the peer against.");
  }
  gss_buffer_desc input = gss::BufferOver(bytes_view_t(prepared));
  SLeg leg;
  leg.major = gss_accept_sec_context(&leg.minor, context, credential_.Get(), &input, GSS_C_NO_CHANNEL_BINDINGS, nullptr,
                                     nullptr, answer, nullptr, nullptr, nullptr);
  return leg;
}

void CGssAcceptor::OnEstablished(gss_OID mechanism, gss_name_t initiator) {
  if (gss::IsSame(mechanism, gss::NtlmMechanism())) {
    account_ = accounts_->AccountOfNtlmName(PeerName());
    return;
  }
  // Only what the rules of the realm map: a name of another realm must not become one of this system by losing it.
  gss::CBuffer local;
  OM_uint32 minor = 0;
  if (gss_localname(&minor, initiator, mechanism, local.Out()) == GSS_S_COMPLETE)
    account_ = accounts_->AccountOfLocalName(local.Text());
}

}  // namespace dcerpc
