#include "management/dcerpc/account_map.h"

#include <algorithm>

#include "platform/text.h"

namespace dcerpc {

std::string CAccountMap::AccountOfNtlmName(std::string_view name) const {
  const std::size_t separator = name.find('\\');
  std::vector<std::string> spellings{std::string(name)};
  if (separator != std::string_view::npos) {
    name.remove_prefix(separator + 1);
    spellings.emplace_back(name);
  }
  spellings.push_back(platform::FoldAscii(name));
  for (const std::string& spelling : spellings) {
    if (std::string account = AccountOfLocalName(spelling); !account.empty())
      return account;
  }
  return {};
}

std::string CAccountMap::AccountOfLocalName(std::string_view name) const {
  // A zero byte would end the name early for the system's calls.
  if (name.empty() || name.find('\0') != std::string_view::npos)
    return {};
  const std::optional<SAccount> account = accounts_->FindAccount(std::string(name));
  return account ? account->name : std::string();
}

std::string CAccountMap::AccountOfUid(uid_t uid) const {
  const std::optional<SAccount> account = accounts_->FindAccount(uid);
  return account ? account->name : std::string();
}

bool CAccountMap::IsAdministrator(const std::string& account) const {
  if (account.empty())
    return false;
  const std::optional<SAccount> known = accounts_->FindAccount(account);
  if (!known)
    return false;
  if (known->uid == 0)
    return true;
  const std::optional<gid_t> administrators = accounts_->FindGroup(std::string(AdministratorsGroup));
  if (!administrators)
    return false;
  const std::vector<gid_t> groups = accounts_->GroupsOf(*known);
  return std::find(groups.begin(), groups.end(), *administrators) != groups.end();
}

}  // namespace dcerpc
