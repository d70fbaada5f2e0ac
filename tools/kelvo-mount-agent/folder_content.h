// The files of a folder, served as a backup.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kelvo-mount-agent/overlay_file.h"
#include "mount-agent-lib/content.h"
#include "platform/below_root.h"
#include "platform/location.h"

namespace mount_agent {

enum class writes_t {
  Refused,
  ToOverlay,      ///< The files stay as they are.
  ToOverlaySync,  ///< The same, and each write reaches the disk before it is answered.
  ToSource,       ///< The files themselves are written.
};

struct SFolderOptions {
  std::string source;
  std::string overlay;  ///< None: empty. With writes refused, what it holds is shown.
  writes_t writes = writes_t::Refused;
};

/// The regular files right in a folder; what else is there, sub-folders too, is not seen. A symbolic link counts as
/// what it leads to, as long as that lies below the folder. Names that are no UTF-8 or hold a backslash are not seen.
///
/// With an overlay, a file is opened once and stays open, so that all connections see one state.
class CFolderContent final : public IMountedContent {
 public:
  /// Opens the folders and every overlay that there is. Throws runtime_exc_t when one cannot be used, or another agent
  /// uses the overlay folder.
  explicit CFolderContent(const SFolderOptions& options);

  platform::error_t List(const path_t& path, std::vector<SListedItem>& items) override;
  platform::error_t Open(const path_t& path, boost::shared_ptr<IMountedItem>& item) override;
  platform::error_t Flush() override;

 private:
  class CSourceItem;
  class COverlaidItem;

  void OpenFolders();
  void OpenOverlays();
  platform::error_t ReadNames(std::vector<std::string>& names) const;
  /// Of a regular file; 2 for anything else.
  platform::error_t Find(const std::string& name, platform::descriptor_t& place, struct stat& status) const;
  platform::error_t OpenSource(const std::string& name, platform::descriptor_t& file, struct stat& status) const;
  /// Throws what COverlayFile throws.
  platform::error_t OpenOverlaid(const std::string& name, boost::shared_ptr<COverlaidItem>& item);

  const SFolderOptions options_;
  platform::descriptor_t source_{-1};
  platform::descriptor_t overlay_{-1};  ///< Keeps other agents out of the folder.

  std::mutex mutex_;  // Guards the rest.
  std::map<std::string, boost::shared_ptr<COverlaidItem>, std::less<>> overlaid_;
};

}  // namespace mount_agent
