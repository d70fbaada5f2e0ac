// Who holds which file open, and what others may do with it meanwhile.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <vector>

#include "platform/files.h"

namespace platform {

/// The share modes of the process's open files, by device and inode. Two opens agree when each one's access is within
/// what the other shares. Any thread.
class open_files_t {
 public:
  /// One holder's place in the table; gives it back when destroyed.
  class reservation_t {
   public:
    reservation_t() = default;
    reservation_t(const reservation_t&) = delete;
    reservation_t& operator=(const reservation_t&) = delete;
    ~reservation_t() { Release(); }
    /// Any number of times, from any thread.
    void Release() noexcept;

   private:
    friend class open_files_t;
    bool isHeld_ = false;
    file_id_t id_;
  };

  /// The process's table.
  static open_files_t& Instance();

  /// 32 when the file is held by someone who does not agree. The reservation must be a fresh one.
  error_t Reserve(const file_id_t& id, file_access_t access, file_share_t share, reservation_t& reservation);
  /// Files held by anyone.
  std::size_t Count() const;

 private:
  open_files_t() = default;

  struct holder_t {
    const reservation_t* owner;
    bool writes;
    bool sharesWriting;
  };
  void Release(reservation_t& reservation) noexcept;

  mutable std::mutex mutex_;  // Guards the map and every reservation's state.
  std::map<file_id_t, std::vector<holder_t>> holders_;
};

}  // namespace platform
