#include "hostfs/files_access_permissions.h"

#include <atomic>

namespace security {
namespace {

CUnrestrictedFilesAccessPermissions unrestricted;
std::atomic<IFilesAccessPermissions*> inForce{&unrestricted};

}  // namespace

void CUnrestrictedFilesAccessPermissions::CheckAccess(const std::string& /*path*/) {}

IFilesAccessPermissions& FilesAccessPermissions() {
  return *inForce.load(std::memory_order_acquire);
}

void SetFilesAccessPermissions(IFilesAccessPermissions* permissions) {
  inForce.store(permissions == nullptr ? &unrestricted : permissions, std::memory_order_release);
}

}  // namespace security
