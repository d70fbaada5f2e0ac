// The accounts of this machine and their groups.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/error.h"

namespace platform {

/// The user behind an account's name; nothing when there is no such account, which is no failure.
error_t FindUserId(const std::string& account, std::optional<std::uint32_t>& id);

/// Whether the group is the account's own or one of its further groups. An account or group that does not exist is no
/// failure.
error_t IsGroupMember(const std::string& account, const std::string& group, bool& isMember);

/// The user that the process acts as.
std::uint32_t OwnUserId() noexcept;

}  // namespace platform
