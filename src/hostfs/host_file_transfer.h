// Moving data into and out of an open host file.
#pragma once

#include <cstdint>
#include <string>

#include "platform/files.h"
#include "vfs/items/fs_item.h"

/// From here on a read is refused before it is begun.
inline constexpr std::uint32_t InvalidReadCount = 0x2800000;

/// Reads what is there of count bytes into the buffer; eof when the file ended before. A count of 0 asks whether the
/// offset is at the end. One system call when the file holds all that is asked for. The path is for texts. Throws.
void ReadHostFile(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                  SFsReadBuffer& buffer);

/// Writes all, or throws with the number of the failure that stopped it. What another process holds locked is tried
/// again, as the general options say.
void WriteHostFile(platform::file_t& file, const std::string& path, std::uint64_t offset, std::uint32_t count,
                   const void* data);

void ResizeHostFile(platform::file_t& file, const std::string& path, std::uint64_t newSize);
