// From the names that peers prove to accounts of this system.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace dcerpc {

/// The accounts of the system. Any thread. Throws exc::win_sys_exc_t when they cannot be read.
class IAccountDatabase {
 public:
  virtual ~IAccountDatabase() = default;
  /// There is an account of exactly this name, case included.
  virtual bool HasAccount(const std::string& name) const = 0;
};

/// The name service of the system.
std::unique_ptr<IAccountDatabase> MakeSystemAccounts();

/// Maps names. Constant after construction; any thread. Throws what the database throws.
class CAccountMap {
 public:
  explicit CAccountMap(std::shared_ptr<const IAccountDatabase> accounts) : accounts_(std::move(accounts)) {}

  /// "DOM\user" or "user", as NTLM spells it, in the case that the peer typed: an account of the whole name, else one
  /// of the part after the domain, as it stands and then in lower case. Empty when there is none.
  std::string AccountOfNtlmName(std::string_view name) const;
  /// A name that Kerberos itself mapped to a local one: the account of exactly that name, or nothing.
  std::string AccountOfLocalName(std::string_view name) const;

 private:
  const std::shared_ptr<const IAccountDatabase> accounts_;
};

}  // namespace dcerpc
