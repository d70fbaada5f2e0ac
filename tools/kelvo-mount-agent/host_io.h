// Whole reads and writes of host files.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "platform/error.h"

namespace mount_agent {

/// Reads until the length or the end of the file is reached. 223 for an offset that no file has.
platform::error_t ReadFully(int file, std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead);
/// Writes everything or fails; part of it may be written then.
platform::error_t WriteFully(int file, std::uint64_t offset, const void* data, std::size_t length);

}  // namespace mount_agent
