// Whole folders of the host: made with their parents, deleted with their content.
#pragma once

#include <string>

#include "platform/files.h"

/// Whether the path, as the administrator writes it, is a folder now.
bool HostFolderExists(const std::string& path, platform::files_t& files = platform::SystemFiles());

/// Makes a folder and every parent that is missing. Throws runtime_exc_t for an empty path, win_sys_exc_t otherwise.
void CreateHostFolderChain(const std::string& path, platform::files_t& files = platform::SystemFiles());

/// Deletes a folder with all its content; links in it are deleted, never followed, also when one takes the place of a
/// folder meanwhile, which is a failure. A folder that refuses to be empty (145)
/// is tried three times more, 100 ms apart. Throws win_sys_exc_t. What the cache holds open below it is the caller's
/// to drop.
void DeleteHostFolderTree(const platform::location_t& place, platform::files_t& files);
