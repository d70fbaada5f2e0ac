// The file of the registry: where it lies, how it is made, which version it has.
#pragma once

#include <string>

#include "platform/error.h"
#include "platform/sqlite_db.h"

namespace platform {

/// Opens the registry's file and sets the connection up. With `create`, a file that is missing is made with its
/// folders; without, it is 2. A file that is damaged, not a registry (1009) or of a newer version (1306) stays as it
/// is. `wait`: whether another process that holds the file is waited for, about ten seconds, before it is 33.
error_t OpenRegistryFile(const std::string& path, bool create, bool wait, sqlite_db_t& db);

}  // namespace platform
