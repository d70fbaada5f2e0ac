// Who may give commands.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "management/dcerpc/caller.h"

namespace security {

/// Members of this local group are administrators.
inline constexpr char AdministratorsGroup[] = "kelvo-admins";

/// The accounts of this machine. Any thread; what cannot be asked throws exc::win_sys_exc_t.
class IAccounts {
 public:
  virtual ~IAccounts() = default;
  /// Nothing for an account that does not exist.
  virtual std::optional<std::uint32_t> FindUserId(const std::string& account) const = 0;
  /// False for an account or a group that does not exist.
  virtual bool IsMember(const std::string& account, const std::string& group) const = 0;
  /// The service's own user.
  virtual std::uint32_t OwnUserId() const = 0;
};

/// The system's account database.
const IAccounts& LocalAccounts();

/// Returns for an administrator: root, a member of the group and, on the local socket, the service's own user. Throws
/// for anyone else, and for a caller who proved no identity.
void CheckCaller(const dcerpc::SCaller& caller, const IAccounts& accounts);

}  // namespace security
