// The listings that clients are in the middle of.
#pragma once

#include <boost/shared_ptr.hpp>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>

#include "vfs/table/nfs_folder_dir_plus_cache.h"

/// Keeps a folder's snapshot from one page to the next, so that a listing is read from the backend once.
///
/// A snapshot is filtered for the client that asked for it and is kept for that client alone: two clients that page one
/// folder do not disturb each other. A client that never reads to the end costs one snapshot until the least recently
/// used ones are dropped to keep the bounds; a dropped one is only read anew. Beside them stands what a folder lists
/// before it is filtered, which serves the next listing of whatever client for as long as the folder does not change.
/// Guarded by the owner's lock.
class CNfsListingSlots {
 public:
  /// client: the caller's IPv4 address as it stands in the socket address.
  struct SKey {
    std::uint64_t folderFid;
    std::uint32_t client;
    bool isWhole = false;  ///< The folder's own, of no client.
    auto operator<=>(const SKey&) const = default;
  };

  static constexpr std::size_t MaxSnapshots = 64;
  static constexpr std::size_t MaxEntries = 2000000;

  /// Empty when there is none. Counts as a use.
  boost::shared_ptr<CNfsFolderDirPlusCache> Get(const SKey& key);
  /// Replaces what was there. The newest snapshot is kept whatever its size.
  void Set(const SKey& key, boost::shared_ptr<CNfsFolderDirPlusCache> snapshot);
  void Reset(const SKey& key) noexcept;
  /// The same for the folder's unfiltered listing.
  boost::shared_ptr<CNfsWholeListing> GetWhole(std::uint64_t folderFid);
  void SetWhole(std::uint64_t folderFid, const boost::shared_ptr<CNfsWholeListing>& listing);
  /// Drops the folder's snapshots of all clients.
  void ResetFolder(std::uint64_t folderFid) noexcept;

  std::size_t Count() const { return slots_.size(); }
  std::size_t EntryCount() const { return entryCount_; }

 private:
  struct SSlot {
    boost::shared_ptr<CNfsFolderDirPlusCache> snapshot;
    std::list<SKey>::iterator use;
  };
  using slots_t = std::map<SKey, SSlot>;

  void Erase(slots_t::iterator slot) noexcept;

  slots_t slots_;
  std::list<SKey> uses_;  // Least recently used first.
  std::size_t entryCount_ = 0;
};
