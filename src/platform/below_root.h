// Opening what lies below a folder, and nothing else.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/file_attributes.h"
#include "platform/location.h"

namespace platform {

/// Opens a relative path below a folder; an empty one is the folder itself. Every link on the way and at the end is
/// followed as long as it stays below, else the result is error 5. O_CLOEXEC is added.
error_t OpenBelow(int folder, std::string_view relative, int flags, mode_t mode, descriptor_t& opened);

/// The folder that holds the last component of a location, and that component.
struct parent_t {
  descriptor_t folder{-1};
  std::string name;
};

/// Opens the folder around a location, for calls that name the entry themselves. The root has none: error 5.
error_t OpenParent(const location_t& where, parent_t& parent);

/// The attribute record, identity and kind of an open file.
struct host_status_t {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  file_id_t id;
  mode_t mode = 0;
};
error_t ReadStatus(int file, host_status_t& status);
/// Of an entry of a folder, a link not followed.
error_t ReadEntryStatus(int folder, const std::string& name, host_status_t& status);

}  // namespace platform
