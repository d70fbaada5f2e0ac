// A dump while it is written.
#pragma once

#include "foundation/dump/text.h"

namespace crash {

/// Keeps the file under another name, its own and ".part", until it is whole: what looks like a dump can be read, also
/// when the writer was killed, or left because it took too long. Such a rest is written over by the next dump. One
/// thread, after a crash.
class new_dump_t {
 public:
  /// The path must outlive the object.
  explicit new_dump_t(const char* path) noexcept;
  new_dump_t(const new_dump_t&) = delete;
  new_dump_t& operator=(const new_dump_t&) = delete;
  /// Removes what was not finished.
  ~new_dump_t();

  /// Opens the empty file, mode 0600. False leaves the errno.
  bool Create() noexcept;
  int Descriptor() const noexcept { return file_; }
  /// Closes the file and gives it its name. False: the system had no room for the rest, or the name is taken.
  bool Finish(failure_t& failure) noexcept;

 private:
  bool Rename() const noexcept;

  const char* const path_;
  path_text_t partPath_;
  int file_ = -1;
};

}  // namespace crash
