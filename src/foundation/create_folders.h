// Making the folder of a file that the service writes.
#pragma once

#include <filesystem>

namespace io {

/// Makes the folder and those above it, mode 0700, where they are missing. Throws win_sys_exc_t
/// "Failed to create folder [%1]." with the first one that cannot be had.
void CreateFolders(const std::filesystem::path& folder);

}  // namespace io
