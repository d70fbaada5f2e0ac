#include "foundation/create_folders.h"

#include <sys/stat.h>

#include "foundation/exc.h"

namespace io {

void CreateFolders(const std::filesystem::path& folder) {
  std::filesystem::path made;
  for (const std::filesystem::path& part : folder) {
    made /= part;
    if (::mkdir(made.c_str(), 0700) == 0)
      continue;
    const platform::error_t error = platform::LastError();
    struct stat status {};
    if (::stat(made.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
      continue;
    throw exc::win_sys_exc_t(exc::FormatText("Failed to create folder [%1].", made.string()), error);
  }
}

}  // namespace io
