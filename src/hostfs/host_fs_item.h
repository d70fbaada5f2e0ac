// What host files and host folders have in common.
#pragma once

#include <netinet/in.h>

#include <string>

#include "hostfs/host_fs_node.h"
#include "platform/file_attributes.h"

class IAddressChecker;

namespace host_fs_item {

/// Whether a failed search means that nothing was found: nothing has the name, or what has it may not be reached.
/// Anything else, as being out of descriptors or a disk that cannot be read, says nothing about what is there, and must
/// not pass for its absence.
bool MeansAbsent(platform::error_t failure) noexcept;

/// Gives the number of the failure.
platform::error_t TryGetAttributes(const CHostFsNode& node, WIN32_FILE_ATTRIBUTE_DATA& attributes);
[[noreturn]] void ThrowNoAttributes(const CHostFsNode& node, platform::error_t failure);
bool Exists(const CHostFsNode& node);
/// The owner's read bit has no counterpart in the read-only attribute and is not looked at.
void SetPermissions(const CHostFsNode& node, bool write);
/// Null allows everyone, and has the empty text.
bool IsAddressAllowed(IAddressChecker* checker, const sockaddr_in& address);
std::string AddressText(IAddressChecker* checker);

/// Throws win_sys_exc_t 1113 for a name that is no UTF-8.
void CheckUtf8(const std::string& name);

}  // namespace host_fs_item
