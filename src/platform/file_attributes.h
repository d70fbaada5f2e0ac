// The attribute record in which every backend describes an item.
#pragma once

#include <cstdint>
#include <ctime>

namespace platform {

/// Units of 100 ns since 1601-01-01 UTC.
using FILETIME = std::uint64_t;

/// Seconds between 1601-01-01 and 1970-01-01.
inline constexpr std::uint64_t FiletimeEpochSeconds = 11644473600ULL;

inline constexpr std::uint32_t FileAttributeReadOnly = 0x1;
inline constexpr std::uint32_t FileAttributeDirectory = 0x10;
inline constexpr std::uint32_t FileAttributeNormal = 0x80;

struct WIN32_FILE_ATTRIBUTE_DATA {
  std::uint32_t attributes = 0;
  FILETIME creationTime = 0;
  FILETIME lastAccessTime = 0;
  FILETIME lastWriteTime = 0;
  std::uint32_t sizeHigh = 0;
  std::uint32_t sizeLow = 0;

  std::uint64_t Size() const { return (static_cast<std::uint64_t>(sizeHigh) << 32) | sizeLow; }
  void SetSize(std::uint64_t size) {
    sizeHigh = static_cast<std::uint32_t>(size >> 32);
    sizeLow = static_cast<std::uint32_t>(size);
  }
  bool IsDirectory() const { return (attributes & FileAttributeDirectory) != 0; }
};

/// Times before 1601 or past the range of FILETIME clamp to its ends.
FILETIME FiletimeFromTimespec(const timespec& time) noexcept;
timespec TimespecFromFiletime(FILETIME time) noexcept;

}  // namespace platform

using platform::FILETIME;
using platform::WIN32_FILE_ATTRIBUTE_DATA;
