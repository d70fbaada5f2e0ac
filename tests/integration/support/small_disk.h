// A disk of a test's own, in memory, that can be too small, read-only or away.
#pragma once

#include <sys/mount.h>

#include <stdexcept>
#include <string>

namespace test {

/// Mounted over a folder, in the test's namespace, until its owner goes.
class CSmallDisk {
 public:
  /// size: as tmpfs takes it, "1m".
  CSmallDisk(std::string path, const std::string& size) : path_(std::move(path)), size_(size) { Mount(0); }
  CSmallDisk(const CSmallDisk&) = delete;
  CSmallDisk& operator=(const CSmallDisk&) = delete;
  ~CSmallDisk() { umount2(path_.c_str(), MNT_DETACH); }

  void Resize(const std::string& size) {
    size_ = size;
    Mount(MS_REMOUNT);
  }
  /// The disk has to be in use by no file that is open for writing.
  void SetReadOnly(bool readOnly) { Mount(readOnly ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT); }

 private:
  void Mount(unsigned long flags) {
    if (mount("tmpfs", path_.c_str(), "tmpfs", flags, ("size=" + size_).c_str()) != 0)
      throw std::runtime_error("a tmpfs cannot be mounted");
  }

  const std::string path_;
  std::string size_;
};

}  // namespace test
