#include "management/caller_test.h"

#include "foundation/exc.h"
#include "platform/accounts.h"

namespace security {

namespace {

/// E_ACCESSDENIED
constexpr platform::error_t AccessDenied = 0x80070005;
constexpr std::uint32_t RootUserId = 0;

class CLocalAccounts : public IAccounts {
 public:
  std::optional<std::uint32_t> FindUserId(const std::string& account) const override {
    std::optional<std::uint32_t> id;
    const platform::error_t number = platform::FindUserId(account, id);
    if (number != platform::error::Success)
      throw exc::win_sys_exc_t("Auth context not available", number);
    return id;
  }
  bool IsMember(const std::string& account, const std::string& group) const override {
    bool isMember = false;
    const platform::error_t number = platform::IsGroupMember(account, group, isMember);
    if (number != platform::error::Success)
      throw exc::win_sys_exc_t("Client security group list retrieval failed", number);
    return isMember;
  }
  std::uint32_t OwnUserId() const override { return platform::OwnUserId(); }
};

bool IsAdministrator(const dcerpc::SCaller& caller, const IAccounts& accounts) {
  if (!caller.authenticated || caller.account.empty())
    return false;
  try {
    const std::optional<std::uint32_t> user = accounts.FindUserId(caller.account);
    if (!user)
      return false;
    const bool isLocal = caller.origin.starts_with("unix:");
    return *user == RootUserId || (isLocal && *user == accounts.OwnUserId()) ||
           accounts.IsMember(caller.account, AdministratorsGroup);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to check whether RPC client is a member of the specified built-in group.", failure);
  }
}

}  // namespace

const IAccounts& LocalAccounts() {
  static const CLocalAccounts accounts;
  return accounts;
}

void CheckCaller(const dcerpc::SCaller& caller, const IAccounts& accounts) {
  if (!IsAdministrator(caller, accounts))
    throw exc::win_sys_exc_t("RPC client is not a member of built-in Administrators group.", AccessDenied);
}

}  // namespace security
