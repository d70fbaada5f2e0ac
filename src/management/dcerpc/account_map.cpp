#include "management/dcerpc/account_map.h"

#include <vector>

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
  std::string account(name);
  return accounts_->HasAccount(account) ? account : std::string();
}

}  // namespace dcerpc
