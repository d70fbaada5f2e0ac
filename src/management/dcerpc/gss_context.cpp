#include "management/dcerpc/gss_context.h"

#include <algorithm>
#include <string_view>

#include "foundation/exc.h"
#include "management/dcerpc/kerberos_protection.h"

namespace dcerpc {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view ChallengeMark = "NTLMSSP\0\2\0\0\0"sv;
constexpr std::size_t ChallengeFlagsOffset = 20;

// How a NegTokenResp ends whose mechListMIC is a signature of NTLM, but for the last bytes of the signature.
constexpr std::string_view MicMark = "\xa3\x12\x04\x10\1\0\0\0"sv;
constexpr std::size_t MicRest = 12;

std::string_view AsText(bytes_view_t bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// RFC 4178: the mechListMIC is the last field of a NegTokenResp.
bool EndsWithMic(bytes_view_t token) {
  const std::size_t size = MicMark.size() + MicRest;
  return token.size() >= size && AsText(token.last(size)).starts_with(MicMark);
}

std::uint32_t ChallengeFlags(bytes_view_t token) {
  const std::size_t start = AsText(token).find(ChallengeMark);
  if (start == std::string_view::npos || token.size() - start < ChallengeFlagsOffset + sizeof(std::uint32_t))
    return 0;
  std::uint32_t flags = 0;
  for (std::size_t i = 0; i < sizeof flags; ++i)
    flags |= static_cast<std::uint32_t>(token[start + ChallengeFlagsOffset + i]) << (8 * i);
  return flags;
}

bytes_t NtlmSessionKey(gss_ctx_id_t context) {
  gss::buffer_set_t keys;
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_inquire_sec_context_by_oid(&minor, context, GSS_C_INQ_SSPI_SESSION_KEY, keys.Out());
  gss::Check("The session key of NTLM is not available.", major, minor, gss::NtlmMechanism());
  if (keys.IsEmpty() || keys.Get()->count == 0)
    throw exc::runtime_exc_t("The session key of NTLM is not available.");
  const gss_buffer_desc& key = keys.Get()->elements[0];
  const auto* const bytes = static_cast<const std::uint8_t*>(key.value);
  return {bytes, bytes + key.length};
}

bool Fits(auth_type_t type, gss_OID mechanism) {
  const bool ntlm = gss::IsSame(mechanism, gss::NtlmMechanism());
  const bool kerberos = gss::IsSame(mechanism, gss::KerberosMechanism());
  return (ntlm && type != auth_type_t::Kerberos) || (kerberos && type != auth_type_t::Ntlm);
}

}  // namespace

bytes_t CGssContext::Step(bytes_view_t token) {
  if (state_ != state_t::Handshake)
    throw exc::runtime_exc_t("A token came where the security context expects none.");
  try {
    return TakeLeg(token);
  } catch (const std::exception& e) {
    state_ = state_t::Failed;
    exc::ChainAndThrow("The security context was not established.", e);
  }
}

bytes_t CGssContext::TakeLeg(bytes_view_t token) {
  NoteToken(token, false);
  gss::CBuffer buffer;
  const SLeg leg = Advance(context_.Out(), token, buffer.Out());
  if (GSS_ERROR(leg.major))
    gss::Fail("The token was refused.", leg.major, leg.minor, GSS_C_NO_OID);
  NoteToken(buffer.Bytes(), true);
  if ((leg.major & GSS_S_CONTINUE_NEEDED) == 0)
    Establish();
  return {buffer.Bytes().begin(), buffer.Bytes().end()};
}

void CGssContext::NoteToken(bytes_view_t token, bool sent) {
  // Both are told by the last token alone that may have them; an earlier one is overruled.
  if (sent == (side_ == side_t::Acceptor)) {
    if (const std::uint32_t flags = ChallengeFlags(token))
      ntlmFlags_ = flags;
  }
  if (!token.empty())
    (sent ? firstNumbers_.send : firstNumbers_.receive) = EndsWithMic(token) ? 1 : 0;
}

void CGssContext::Establish() {
  gss::name_t initiator;
  gss_OID mechanism = GSS_C_NO_OID;
  OM_uint32 flags = 0;
  OM_uint32 minor = 0;
  // The library falls over the acceptor's name where NTLM was given none of a service.
  const OM_uint32 major =
      gss_inquire_context(&minor, context_.Get(), side_ == side_t::Acceptor ? initiator.Out() : nullptr, nullptr,
                          nullptr, &mechanism, &flags, nullptr, nullptr);
  gss::Check("The security context tells nothing of itself.", major, minor, GSS_C_NO_OID);
  if (!Fits(type_, mechanism))
    throw exc::runtime_exc_t("The mechanism does not fit the authentication type %1.", static_cast<unsigned>(type_));
  if ((flags & GSS_C_ANON_FLAG) != 0)
    throw exc::runtime_exc_t("The peer is anonymous.");
  protection_ = MakeProtection(mechanism, flags);

  if (!initiator.IsEmpty()) {
    gss::CBuffer name;
    const OM_uint32 shown = gss_display_name(&minor, initiator.Get(), name.Out(), nullptr);
    gss::Check("The name of the peer is not available.", shown, minor, mechanism);
    peerName_ = name.Text();
  }
  OnEstablished(mechanism, initiator.Get());
  state_ = state_t::Established;
}

void CGssContext::OnEstablished(gss_OID, gss_name_t) {}

void CGssContext::CheckNtlmFlags() const {
  using namespace ntlm_flags;
  std::uint32_t needed = ExtendedSessionSecurity | Key128 | KeyExchange;
  if (level_ >= auth_level_t::Packet)
    needed |= Sign;
  if (level_ == auth_level_t::Privacy)
    needed |= Seal;
  if ((ntlmFlags_ & needed) != needed)
    throw exc::runtime_exc_t("The peer asks for a form of NTLM that is too weak.");
}

std::unique_ptr<IMessageProtection> CGssContext::MakeProtection(gss_OID mechanism, OM_uint32 flags) {
  const bool ntlm = gss::IsSame(mechanism, gss::NtlmMechanism());
  if (ntlm) {
    CheckNtlmFlags();
  } else if ((flags & GSS_C_DCE_STYLE) == 0) {
    throw exc::runtime_exc_t("The peer does not speak Kerberos in the style of DCE.");
  }
  if (level_ < auth_level_t::Packet)
    return nullptr;
  if (ntlm)
    return std::make_unique<CNtlmProtection>(side_, level_, NtlmSessionKey(context_.Get()), firstNumbers_);
  // Without it the library lets repeated fragments pass.
  if ((flags & GSS_C_SEQUENCE_FLAG) == 0)
    throw exc::runtime_exc_t("The peer does not number its messages.");
  return std::make_unique<CKerberosProtection>(context_.Get(), level_);
}

IMessageProtection& CGssContext::Protection() const {
  if (!IsEstablished() || !protection_)
    throw exc::runtime_exc_t("The security context protects no messages.");
  return *protection_;
}

std::size_t CGssContext::SignatureSize(std::size_t stubSize) const {
  return Protection().SignatureSize(stubSize);
}

void CGssContext::Protect(const SFragment& fragment) {
  try {
    Protection().Protect(fragment);
  } catch (const std::exception&) {
    state_ = state_t::Failed;
    throw;
  }
}

void CGssContext::Unprotect(const SFragment& fragment) {
  try {
    Protection().Unprotect(fragment);
  } catch (const std::exception&) {
    state_ = state_t::Failed;
    throw;
  }
}

}  // namespace dcerpc
