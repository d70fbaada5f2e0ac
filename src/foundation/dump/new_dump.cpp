#include "foundation/dump/new_dump.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace crash {

new_dump_t::new_dump_t(const char* path) noexcept : path_(path) {
  partPath_.Add(path).Add(".part");
}

new_dump_t::~new_dump_t() {
  if (file_ < 0)
    return;
  ::close(file_);
  ::unlink(partPath_.CStr());
}

bool new_dump_t::Create() noexcept {
  if (partPath_.IsFull()) {
    errno = ENAMETOOLONG;
    return false;
  }
  // A new file alone: one that was left, or that another account put there, may be open to others, who would read what
  // was in memory.
  ::unlink(partPath_.CStr());
  file_ = ::open(partPath_.CStr(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  return file_ >= 0;
}

bool new_dump_t::Rename() const noexcept {
  if (::renameat2(AT_FDCWD, partPath_.CStr(), AT_FDCWD, path_, RENAME_NOREPLACE) == 0)
    return true;
  // Some file systems cannot promise it. The name was free a moment ago.
  return errno == EINVAL && ::rename(partPath_.CStr(), path_) == 0;
}

bool new_dump_t::Finish(failure_t& failure) noexcept {
  const bool isClosed = ::close(file_) == 0;
  file_ = -1;
  if (isClosed && Rename())
    return true;
  failure.AddSystem("Failed to rename file [%1].", {partPath_.View()}, errno);
  ::unlink(partPath_.CStr());
  return false;
}

}  // namespace crash
