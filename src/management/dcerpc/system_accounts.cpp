#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "foundation/exc.h"
#include "management/dcerpc/account_map.h"
#include "platform/error.h"

namespace dcerpc {
namespace {

constexpr std::size_t FirstBufferSize = 4096;
constexpr std::size_t MaxBufferSize = 16U << 20;

/// Calls one of the lookups with room for the texts of the entry; more each time it asks for more. False: no entry.
template <typename entry_t, typename call_t>
bool LookUp(entry_t& entry, std::vector<char>& texts, const call_t& call) {
  texts.resize(FirstBufferSize);
  for (;;) {
    entry_t* found = nullptr;
    const int result = call(&entry, texts.data(), texts.size(), &found);
    if (result == 0)
      return found != nullptr;
    // What some name services say of a name that they do not know.
    if (result == ENOENT || result == ESRCH)
      return false;
    if (result == EINTR)
      continue;
    if (result != ERANGE || texts.size() >= MaxBufferSize)
      throw exc::win_sys_exc_t("Failed to look up an account.", platform::ErrorFromErrno(result));
    texts.resize(texts.size() * 2);
  }
}

template <typename call_t>
std::optional<SAccount> LookUpAccount(const call_t& call) {
  passwd entry{};
  std::vector<char> texts;
  if (!LookUp(entry, texts, call))
    return std::nullopt;
  return SAccount{entry.pw_name, entry.pw_uid, entry.pw_gid};
}

class CSystemAccounts : public IAccountDatabase {
 public:
  std::optional<SAccount> FindAccount(const std::string& name) const override {
    return LookUpAccount([&](passwd* entry, char* texts, std::size_t size, passwd** found) {
      return ::getpwnam_r(name.c_str(), entry, texts, size, found);
    });
  }

  std::optional<SAccount> FindAccount(uid_t uid) const override {
    return LookUpAccount([&](passwd* entry, char* texts, std::size_t size, passwd** found) {
      return ::getpwuid_r(uid, entry, texts, size, found);
    });
  }

  std::vector<gid_t> GroupsOf(const SAccount& account) const override {
    std::vector<gid_t> groups(64);
    for (;;) {
      int count = static_cast<int>(groups.size());
      const bool complete = ::getgrouplist(account.name.c_str(), account.gid, groups.data(), &count) >= 0;
      groups.resize(std::max(static_cast<std::size_t>(count), complete ? 0 : groups.size() * 2));
      if (complete)
        return groups;
    }
  }

  std::optional<gid_t> FindGroup(const std::string& name) const override {
    group entry{};
    std::vector<char> texts;
    const bool found = LookUp(entry, texts, [&](group* into, char* text, std::size_t size, group** result) {
      return ::getgrnam_r(name.c_str(), into, text, size, result);
    });
    return found ? std::optional<gid_t>(entry.gr_gid) : std::nullopt;
  }
};

}  // namespace

std::unique_ptr<IAccountDatabase> MakeSystemAccounts() {
  return std::make_unique<CSystemAccounts>();
}

}  // namespace dcerpc
