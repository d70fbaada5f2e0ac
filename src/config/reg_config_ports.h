// The stored ports of the MOUNT and NFS programs.
#pragma once

#include <atomic>
#include <cstdint>

/// Any thread.
class CRegConfigPorts {
 public:
  static constexpr std::uint32_t DefaultMountPort = 1058;
  static constexpr std::uint32_t DefaultNfsPort = 2049;

  /// The defaults, and what is stored when `load` is set.
  explicit CRegConfigPorts(bool load);

  std::uint16_t GetMountPort() const noexcept { return mountPort_; }
  std::uint16_t GetNfsPort() const noexcept { return nfsPort_; }
  /// Throws "Invalid argument." for a port above 65535. The registry follows with Save.
  void SetMountPort(std::uint32_t port);
  void SetNfsPort(std::uint32_t port);

  /// What is missing, unreadable or above 65535 leaves the held value. Never throws: a failure is logged.
  void Load();
  /// Throws when it cannot be stored.
  void Save() const;

 private:
  std::atomic<std::uint16_t> mountPort_{DefaultMountPort};
  std::atomic<std::uint16_t> nfsPort_{DefaultNfsPort};
};
