#include "management/dcerpc/gss_initiator.h"

#include "foundation/exc.h"
#include "management/dcerpc/gss_provider.h"

namespace dcerpc {
namespace {

gss_OID MechanismOf(auth_type_t type) {
  switch (type) {
    case auth_type_t::Negotiate:
      return gss::SpnegoMechanism();
    case auth_type_t::Ntlm:
      return gss::NtlmMechanism();
    case auth_type_t::Kerberos:
      return gss::KerberosMechanism();
    case auth_type_t::None:
      break;
  }
  throw exc::runtime_exc_t("The authentication type %1 is not served.", static_cast<unsigned>(type));
}

gss::credential_t AcquireCredential(const SInitiatorSettings& settings) {
  gss_OID const mechanism = MechanismOf(settings.type);
  gss_OID_set_desc mechanisms{1, mechanism};
  gss::credential_t credential;
  OM_uint32 major = 0;
  OM_uint32 minor = 0;
  if (settings.user.empty()) {
    major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE, credential.Out(),
                             nullptr, nullptr);
  } else {
    const gss::name_t name = gss::ImportName(settings.user, GSS_C_NT_USER_NAME);
    gss_buffer_desc password = gss::BufferOver(settings.password);
    major = gss_acquire_cred_with_password(&minor, name.Get(), &password, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE,
                                           credential.Out(), nullptr, nullptr);
  }
  gss::Check("There are no credentials for the connection.", major, minor, mechanism);
  if (settings.type == auth_type_t::Negotiate) {
    gss_OID_set_desc offered{1, settings.user.empty() ? gss::KerberosMechanism() : gss::NtlmMechanism()};
    major = gss_set_neg_mechs(&minor, credential.Get(), &offered);
    gss::Check("There are no credentials for the connection.", major, minor, mechanism);
  }
  return credential;
}

/// An acceptor of NTLM tells the service name that it goes by, from its own idea of its host, and the library gives up
/// where that is not the one that the initiator gave; NTLM proves no server, so it is given a host without a service.
std::string TargetName(const SInitiatorSettings& settings) {
  const bool ntlm =
      settings.type == auth_type_t::Ntlm || (settings.type == auth_type_t::Negotiate && !settings.user.empty());
  return (ntlm ? "@" : "host@") + settings.host;
}

}  // namespace

CGssInitiator::CGssInitiator(const SInitiatorSettings& settings)
    : CGssContext(side_t::Initiator, settings.type, EffectiveLevel(settings.level), settings.host),
      target_(gss::ImportName(TargetName(settings), GSS_C_NT_HOSTBASED_SERVICE)),
      credential_(AcquireCredential(settings)) {}

CGssContext::SLeg CGssInitiator::Advance(gss_ctx_id_t* context, bytes_view_t token, gss_buffer_t answer) {
  OM_uint32 flags = GSS_C_MUTUAL_FLAG | GSS_C_REPLAY_FLAG | GSS_C_SEQUENCE_FLAG | GSS_C_INTEG_FLAG | GSS_C_DCE_STYLE;
  if (Level() == auth_level_t::Privacy)
    flags |= GSS_C_CONF_FLAG;
  gss_buffer_desc input = gss::BufferOver(token);
  SLeg leg;
  leg.major = gss_init_sec_context(&leg.minor, credential_.Get(), context, target_.Get(), MechanismOf(Type()), flags, 0,
                                   GSS_C_NO_CHANNEL_BINDINGS, token.empty() ? GSS_C_NO_BUFFER : &input, nullptr, answer,
                                   nullptr, nullptr);
  return leg;
}

}  // namespace dcerpc
