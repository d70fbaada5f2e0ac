#include "management/dcerpc/gss_provider.h"

#include "foundation/exc.h"
#include "management/dcerpc/gss_context.h"
#include "management/dcerpc/gss_support.h"

namespace dcerpc {
namespace {

/// Empty when the type can be served.
std::string ReasonAgainst(auth_type_t type) {
  switch (type) {
    case auth_type_t::Negotiate:
      if (!gss::IsRegistered(gss::SpnegoMechanism()))
        return "The mechanism SPNEGO is not installed.";
      if (!gss::IsRegistered(gss::NtlmMechanism()) && !gss::IsRegistered(gss::KerberosMechanism()))
        return "There is no mechanism to negotiate.";
      return {};
    case auth_type_t::Ntlm:
      return gss::IsRegistered(gss::NtlmMechanism()) ? "" : "The mechanism NTLM is not installed.";
    case auth_type_t::Kerberos:
      return gss::IsRegistered(gss::KerberosMechanism()) ? "" : "The mechanism Kerberos is not installed.";
    case auth_type_t::None:
      break;
  }
  return exc::FormatText("The authentication type %1 is not served.", static_cast<unsigned>(type));
}

}  // namespace

auth_level_t EffectiveLevel(auth_level_t level) {
  if (level < auth_level_t::Connect || level > auth_level_t::Privacy)
    throw exc::runtime_exc_t("The authentication level %1 is not served.", static_cast<unsigned>(level));
  return level == auth_level_t::Call ? auth_level_t::Packet : level;
}

CGssProvider::CGssProvider(std::shared_ptr<const CAccountMap> accounts)
    : accounts_(std::move(accounts)), users_(std::make_shared<CNtlmUserFile>()) {
  // A file that is refused is told at the start, not at the first caller.
  users_->Usable();
}

bool CGssProvider::IsAvailable(auth_type_t type, std::string* error) {
  const std::string reason = ReasonAgainst(type);
  if (error != nullptr)
    *error = reason;
  return reason.empty();
}

std::unique_ptr<ISecurityContext> CGssProvider::Accept(auth_type_t type, auth_level_t level) {
  std::string error;
  if (!IsAvailable(type, &error))
    throw exc::runtime_exc_t(error);
  return std::make_unique<CGssAcceptor>(type, EffectiveLevel(level), accounts_, users_);
}

}  // namespace dcerpc
