// Opening what lies below a folder, and nothing else.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/file_attributes.h"
#include "platform/location.h"

namespace platform {

enum class links_t {
  Inside,   ///< Followed as long as they stay below; one that does not is error 5.
  Refused,  ///< Error 1921.
};

/// Opens a relative path below a folder; an empty one is the folder itself. What is told of links holds on the way and
/// at the end. O_CLOEXEC is added.
error_t OpenBelow(int folder, std::string_view relative, int flags, mode_t mode, descriptor_t& opened,
                  links_t links = links_t::Inside);

/// The folder that holds the last component of a location, and that component.
class parent_t {
 public:
  /// Finds the folder around a location, for calls that name the entry themselves. The root has none: error 5. One
  /// that the calling thread's lookup_scope_t has met is not looked for again. Once.
  error_t Open(const location_t& where);

  int Folder() const { return folder_.IsOpen() ? folder_.Get() : shared_->Get(); }
  const std::string& Name() const { return name_; }

 private:
  error_t OpenAnew(const location_t& where, std::string_view around);
  error_t OpenInScope(const location_t& where, std::string_view around);

  boost::shared_ptr<const descriptor_t> shared_;  // The root, or the folder itself when the thread's scope keeps it.
  descriptor_t folder_{-1};                       // None when the other is the folder.
  std::string name_;
};

/// The attribute record, identity and kind of an open file.
struct host_status_t {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  file_id_t id;
  mode_t mode = 0;
};
error_t ReadStatus(int file, host_status_t& status);
/// Of any path of the host, links followed.
error_t ReadPathStatus(const std::string& path, host_status_t& status);
/// Of an entry of a folder, a link not followed.
error_t ReadEntryStatus(int folder, const std::string& name, host_status_t& status);

}  // namespace platform
