// From the names that peers prove to accounts of this system, and who of them is an administrator.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dcerpc {

/// One account of the system; a value.
struct SAccount {
  std::string name;
  uid_t uid = 0;
  /// The group of the account itself.
  gid_t gid = 0;
};

/// The accounts and groups of the system. Any thread. Throws exc::win_sys_exc_t when they cannot be read.
class IAccountDatabase {
 public:
  virtual ~IAccountDatabase() = default;
  /// The name must be equal, case included. Nothing when there is none.
  virtual std::optional<SAccount> FindAccount(const std::string& name) const = 0;
  virtual std::optional<SAccount> FindAccount(uid_t uid) const = 0;
  /// All groups of the account, its own among them.
  virtual std::vector<gid_t> GroupsOf(const SAccount& account) const = 0;
  virtual std::optional<gid_t> FindGroup(const std::string& name) const = 0;
};

/// The name service of the system.
std::unique_ptr<IAccountDatabase> MakeSystemAccounts();

/// Members of this group may administer the service.
inline constexpr std::string_view AdministratorsGroup = "kelvo-admins";

/// Maps names and tells administrators. Constant after construction; any thread. Throws what the database throws.
class CAccountMap {
 public:
  explicit CAccountMap(std::shared_ptr<const IAccountDatabase> accounts) : accounts_(std::move(accounts)) {}

  /// "DOM\user" or "user", as NTLM spells it, in the case that the peer typed: an account of the whole name, else one
  /// of the part after the domain, as it stands and then in lower case. Empty when there is none.
  std::string AccountOfNtlmName(std::string_view name) const;
  /// A name that Kerberos itself mapped to a local one: the account of exactly that name, or nothing.
  std::string AccountOfLocalName(std::string_view name) const;
  /// The peer of a Unix socket; empty when the system has no such account.
  std::string AccountOfUid(uid_t uid) const;

  /// Root, or a member of AdministratorsGroup. An empty or unknown name is none.
  bool IsAdministrator(const std::string& account) const;

 private:
  const std::shared_ptr<const IAccountDatabase> accounts_;
};

}  // namespace dcerpc
