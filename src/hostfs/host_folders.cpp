#include "hostfs/host_folders.h"

#include "foundation/exc.h"
#include "foundation/log.h"
#include "hostfs/files_access_permissions.h"
#include "platform/clock.h"

namespace {

namespace error = platform::error;

constexpr int RemoveRetries = 3;
constexpr std::uint32_t RemoveRetryMilliseconds = 100;

[[noreturn]] void ThrowNotRemoved(const std::string& path, platform::error_t failure) {
  throw exc::win_sys_exc_t(exc::FormatText("Failed to delete existing empty subfolder: [%1].", path), failure);
}

void DeleteEntry(const platform::location_t& where, platform::files_t& files) {
  platform::file_info_t info;
  security::FilesAccessPermissions().CheckAccess(where.Path());
  platform::error_t failure = files.FindEntry(where, info);
  if (failure == error::Success && info.attributes.IsDirectory()) {
    DeleteHostFolderTree(where, files);
    return;
  }
  if (failure == error::Success) {
    failure = files.DeleteFile(where);
  }
  if (failure != error::Success && failure != error::FileNotFound) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to delete file: [%1].", where.Path()), failure);
  }
}

void RemoveEmptyFolder(const platform::location_t& where, platform::files_t& files) {
  for (int retry = 0;; ++retry) {
    const platform::error_t failure = files.RemoveFolder(where);
    if (failure == error::Success || failure == error::FileNotFound) {
      return;
    }
    if (failure != error::DirNotEmpty || retry == RemoveRetries) {
      ThrowNotRemoved(where.Path(), failure);
    }
    g_nfs_log.Info("Retrying remove directory '%1'. Retry number: '%2'.", where.Path(), retry);
    platform::Clock().Sleep(RemoveRetryMilliseconds);
  }
}

}  // namespace

bool HostFolderExists(const std::string& path, platform::files_t& files) {
  security::FilesAccessPermissions().CheckAccess(path);
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  return files.GetInfoAt(platform::NormalizePath(path), attributes) == error::Success && attributes.IsDirectory();
}

void CreateHostFolderChain(const std::string& path, platform::files_t& files) {
  if (path.empty()) {
    throw exc::runtime_exc_t("Empty path specified for create directory procedure");
  }
  security::FilesAccessPermissions().CheckAccess(path);
  const std::string whole = platform::NormalizePath(path);
  if (HostFolderExists(whole, files)) {
    return;
  }
  for (std::size_t end = whole.find('/', 1);; end = whole.find('/', end + 1)) {
    const std::string prefix = whole.substr(0, end);
    if (!HostFolderExists(prefix, files)) {
      const platform::error_t failure = files.CreateFolderAt(prefix);
      // Someone else may have been faster.
      if (failure != error::Success && !(failure == error::AlreadyExists && HostFolderExists(prefix, files))) {
        throw exc::win_sys_exc_t(
            exc::FormatText("Failed to create folder [%1]. Full path: %2", prefix.substr(prefix.rfind('/') + 1), whole),
            failure);
      }
    }
    if (end == std::string::npos) {
      return;
    }
  }
}

void DeleteHostFolderTree(const platform::location_t& place, platform::files_t& files) {
  const platform::location_t where = place.WithoutLinks();
  security::FilesAccessPermissions().CheckAccess(where.Path());
  platform::folder_listing_t listing;
  const platform::error_t failure = files.List(where, listing);
  if (failure == error::FileNotFound || failure == error::PathNotFound) {
    return;
  }
  if (failure != error::Success) {
    throw exc::win_sys_exc_t(
        exc::FormatText("File search operation has failed. Search mask: [%1].", where.Path() + "/*"), failure);
  }
  for (const auto* names : {&listing.names, &listing.hidden}) {
    for (const std::string& name : *names) {
      DeleteEntry(where.Child(name), files);
    }
  }
  RemoveEmptyFolder(where, files);
}
