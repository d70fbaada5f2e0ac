// The hook that every path operation on host files passes.
#pragma once

#include <string>

namespace security {

/// Decides whether a path may be touched. Any thread.
class IFilesAccessPermissions {
 public:
  virtual ~IFilesAccessPermissions() = default;
  /// Throws to refuse.
  virtual void CheckAccess(const std::string& path) = 0;
};

/// Accepts every path.
class CUnrestrictedFilesAccessPermissions : public IFilesAccessPermissions {
 public:
  void CheckAccess(const std::string& path) override;
};

/// The hook in force; CUnrestrictedFilesAccessPermissions until another one is set.
IFilesAccessPermissions& FilesAccessPermissions();
/// Null goes back to the unrestricted one. The hook must outlive its use.
void SetFilesAccessPermissions(IFilesAccessPermissions* permissions);

}  // namespace security
