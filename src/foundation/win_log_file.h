// The log on disk.
#pragma once

#include <sys/types.h>

#include "foundation/log_file.h"

namespace win {

/// A log file, mode 0600, held with an exclusive lock while the object lives; others may read it. Each line is handed
/// to the system at once, so that it survives the death of the process. A file that was removed or renamed by others is
/// given up for a new one under the name: what went on into a file without a name would be seen by nobody, and its
/// space could not be freed.
class win_log_file_t : public logging::receiver::log_file_t {
 public:
  /// Opens or creates the file, positioned at its end. With flush, each line is also forced to the disk. Whether the
  /// file still has its name is looked at so often (milliseconds), when a line is written. Throws file_locked_exc_t
  /// when another process holds it, and otherwise win_sys_exc_t "Failed to create or open file [%1].".
  explicit win_log_file_t(std::string path, bool flush = false, std::uint32_t lookAgainMs = 1000);
  win_log_file_t(const win_log_file_t&) = delete;
  win_log_file_t& operator=(const win_log_file_t&) = delete;
  ~win_log_file_t() override;

  void Write(std::string_view line) override;
  /// All in one call of the system: on a disk that becomes full, what does not fit is lost from a line on.
  void WriteMany(std::string_view lines) override { Write(lines); }
  std::string GetPath() const override { return path_; }
  std::string GetName() const override;
  std::uint64_t GetSize() const override;
  void Compress(util::zip_writer_t& writer, const std::function<void()>& completion) override;

 private:
  void Open();
  void FollowName() noexcept;

  std::string path_;
  bool flush_;
  const std::int64_t lookAgainNs_;
  std::int64_t nextLookNs_ = 0;
  int descriptor_ = -1;
  /// Of the open file.
  ::dev_t device_ = 0;
  ::ino_t inode_ = 0;
  /// A write failed somewhere inside a line, and what follows must begin a new one.
  bool torn_ = false;
};

}  // namespace win
