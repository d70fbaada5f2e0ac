// Finding an entry of a folder without regard to case, on file systems that have regard to it.
#pragma once

#include <time.h>

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/location.h"

namespace platform {

/// All entries of an open folder but "." and "..", as the folder orders them.
error_t ReadFolder(int folder, std::vector<std::string>& names);

/// False for a change whose time the next change might bear, too: file systems stamp with the ticks of a clock. now: by
/// the clock that stamps, not later than what was read since the change.
bool IsSettled(const timespec& changed, const timespec& now) noexcept;

/// Of names that are equal but for case leaves the first in byte order; the others go to `hidden`. Keeps the order.
void HideCaseVariants(std::vector<std::string>& names, std::vector<std::string>& hidden);

/// Remembers of each folder which names it has, as hashes of their folded form, so that a name which is not there in
/// any case costs no reading of the folder. What is remembered holds until the folder's modification time changes.
///
/// A modification time tells apart only changes that are further apart than the file system's clock ticks, so what was
/// read within a tick of the last change is believed only for a short while, a fixed multiple of the time that reading
/// took, and two milliseconds at least; so is what our own changes were added to, since another's change may hide
/// behind ours. Any thread; the lock is not held while a folder is read.
class folder_names_t {
 public:
  struct clocks_t {
    std::function<timespec()> wall;                                  ///< That stamps files; empty for the system's.
    std::function<std::chrono::steady_clock::time_point()> elapsed;  ///< Empty for the system's.
  };

  folder_names_t();
  explicit folder_names_t(clocks_t clocks);

  /// The entry that is equal to the name but for case, the first in byte order; empty when there is none, or when the
  /// name itself is there as spelled. `folder` may be open as a path alone.
  error_t Find(int folder, std::string_view name, std::string& spelling);

  /// A change of ours to a folder's entries: begun before it, ended after it, so that what is remembered follows.
  struct change_t {
    std::uint64_t reading = 0;  ///< The reading that the folder is remembered from; 0 for none.
    bool isCurrent = false;     ///< It told the folder's present state when the change began.
    file_id_t id;
  };
  change_t BeginChange(int folder);
  /// Empty names for nothing added, nothing removed.
  void EndChange(int folder, const change_t& change, std::string_view added, std::string_view removed);

  /// Folders read so far.
  std::uint64_t ReadCount() const;

 private:
  struct memory_t {
    timespec modified{};
    bool isSettled = false;
    std::chrono::steady_clock::duration cost{};  // Of reading the folder.
    std::chrono::steady_clock::time_point believedUntil;
    std::uint64_t reading = 0;
    int changesUnderWay = 0;
    std::unordered_map<std::uint64_t, std::uint32_t> names;
    std::uint64_t lastUse = 0;
  };

  bool KnowsAbsent(const file_id_t& id, const timespec& modified, std::uint64_t name);
  void Remember(const file_id_t& id, memory_t memory);

  const clocks_t clocks_;

  mutable std::mutex mutex_;  // Guards the rest.
  std::map<file_id_t, memory_t> memories_;
  std::size_t rememberedNames_ = 0;
  std::uint64_t uses_ = 0;
  std::uint64_t reads_ = 0;
};

}  // namespace platform
