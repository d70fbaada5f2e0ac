// The snapshot of a folder from which the pages of a listing are cut.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "vfs/items/fs_item.h"
#include "vfs/table/nfs_name.h"

/// A folder's entries in case-insensitive name order. Immutable once built, so any thread may read it without a lock;
/// a cookie is an index into it.
class CNfsFolderDirPlusCache {
 public:
  CNfsFolderDirPlusCache(const CNfsFolderDirPlusCache&) = delete;
  CNfsFolderDirPlusCache& operator=(const CNfsFolderDirPlusCache&) = delete;
  virtual ~CNfsFolderDirPlusCache() = default;

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

/// What a folder lists before it is filtered for a client.
class CNfsWholeListing : public CNfsFolderDirPlusCache {
 public:
  /// items: one for each entry. version: of the folder in the catalogue, before the listing began. states: of the
  /// folder's backings, in their order. As long as the folder has both, the listing is right; states is empty when a
  /// backing cannot tell.
  CNfsWholeListing(std::vector<SEntry> entries, std::vector<boost::shared_ptr<IFsItem>> items, std::uint64_t version,
                   std::vector<SFsFolderState> states)
      : CNfsFolderDirPlusCache(std::move(entries)),
        items_(std::move(items)),
        version_(version),
        states_(std::move(states)) {}

  const std::vector<boost::shared_ptr<IFsItem>>& Items() const { return items_; }
  std::uint64_t Version() const { return version_; }
  const std::vector<SFsFolderState>& States() const { return states_; }

 private:
  std::vector<boost::shared_ptr<IFsItem>> items_;
  std::uint64_t version_;
  std::vector<SFsFolderState> states_;
};
