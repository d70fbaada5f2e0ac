// The snapshot of a folder from which the pages of a listing are cut.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "vfs/table/nfs_name.h"

/// A folder's entries in case-insensitive name order. Immutable once built, so any thread may read it without a lock;
/// a cookie is an index into it.
class CNfsFolderDirPlusCache {
 public:
  struct SEntry {
    std::string name;
    std::uint64_t fid = InvalidFid;
  };

  /// What one call answers with. The entries belong to the snapshot.
  struct SPage {
    std::span<const SEntry> entries;
    std::uint64_t firstCookie = 0;  ///< Cookie of the first entry: its index plus one. Each next is one more.
    bool eof = true;
  };

  /// Entries of a page, whatever a client would take.
  static constexpr std::uint32_t PageSize = 10;

  /// hiddenCount: entries that were left out because the client may not see them.
  explicit CNfsFolderDirPlusCache(const CNfsNameMap& names, std::size_t hiddenCount = 0);
  /// entries are in order and without duplicates.
  explicit CNfsFolderDirPlusCache(std::vector<SEntry> entries, std::size_t hiddenCount = 0);

  const std::vector<SEntry>& GetEntries() const { return entries_; }
  std::size_t HiddenCount() const { return hiddenCount_; }

  /// The entries from the cookie on. A cookie at or past the end, or past 32 bits, gives none and eof.
  SPage TakePage(std::uint64_t cookie) const noexcept;

 private:
  std::vector<SEntry> entries_;
  std::size_t hiddenCount_ = 0;
};
