#include "hostfs/host_fs_item.h"

#include "config/address_checker.h"
#include "foundation/exc.h"
#include "hostfs/files_access_permissions.h"
#include "platform/text.h"
#include "vfs/items/virtual_fs_exc.h"

namespace host_fs_item {

namespace error = platform::error;

bool MeansAbsent(platform::error_t failure) noexcept {
  return failure == error::FileNotFound || failure == error::PathNotFound || failure == error::AccessDenied ||
         failure == error::FilenameExceedsRange || failure == error::TooManyLinks;
}

platform::error_t TryGetAttributes(const CHostFsNode& node, WIN32_FILE_ATTRIBUTE_DATA& attributes) {
  return node.AtSettledLocation([&](const boost::shared_ptr<const platform::location_t>& where) {
    security::FilesAccessPermissions().CheckAccess(where->Path());
    platform::file_info_t info;
    const platform::error_t failure = node.Files().GetInfo(*where, info);
    if (failure == error::Success) {
      attributes = info.attributes;
    }
    return failure;
  });
}

void ThrowNoAttributes(const CHostFsNode& node, platform::error_t failure) {
  throw exc::win_sys_exc_t(exc::FormatText("Failed to retrieve attributes of the file [%1]", node.Path()), failure);
}

bool Exists(const CHostFsNode& node) {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  const platform::error_t failure = TryGetAttributes(node, attributes);
  if (failure != error::Success && !MeansAbsent(failure)) {
    ThrowNoAttributes(node, failure);
  }
  return failure == error::Success;
}

void SetPermissions(const CHostFsNode& node, bool write) {
  const platform::error_t failure = node.AtLocation([&](const boost::shared_ptr<const platform::location_t>& where) {
    security::FilesAccessPermissions().CheckAccess(where->Path());
    return node.Files().SetReadOnly(*where, !write);
  });
  if (failure != error::Success) {
    throw CVirtualFsExc("Failed to change file permissions (%1)", node.Path(), NFS3ERR_NOENT);
  }
}

bool IsAddressAllowed(IAddressChecker* checker, const sockaddr_in& address) {
  return checker == nullptr || checker->IsAllowed(reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

std::string AddressText(IAddressChecker* checker) {
  return checker == nullptr ? std::string() : checker->ToString();
}

void CheckUtf8(const std::string& name) {
  if (!platform::IsValidUtf8(name)) {
    throw exc::win_sys_exc_t(
        exc::FormatText("Multibyte UTF8 string cannot be converted to unicode string. Source string: [%1].", name),
        error::NoUnicodeTranslation);
  }
}

}  // namespace host_fs_item
