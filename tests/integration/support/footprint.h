// What a process has of things that can be lost.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace test {

struct SFootprint {
  std::size_t residentKiB = 0;
  std::size_t threads = 0;
  /// Without pipes: the service keeps some for data on its way, and how many is bounded.
  std::size_t descriptors = 0;
};

/// Throws when there is no such process.
inline SFootprint FootprintOf(pid_t pid) {
  const std::string process = "/proc/" + std::to_string(pid);
  SFootprint now;
  std::ifstream status(process + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:"))
      now.residentKiB = std::stoul(line.substr(6));
    if (line.starts_with("Threads:"))
      now.threads = std::stoul(line.substr(8));
  }
  for (const auto& entry : std::filesystem::directory_iterator(process + "/fd")) {
    std::error_code gone;
    if (!std::filesystem::read_symlink(entry, gone).string().starts_with("pipe:"))
      ++now.descriptors;
  }
  return now;
}

/// What the process has read by read and its like into its memory so far, bytes; sockets count only partly.
inline std::uint64_t BytesReadBy(pid_t pid) {
  std::ifstream io("/proc/" + std::to_string(pid) + "/io");
  std::string name;
  std::uint64_t bytes = 0;
  io >> name >> bytes;
  return bytes;
}

}  // namespace test
