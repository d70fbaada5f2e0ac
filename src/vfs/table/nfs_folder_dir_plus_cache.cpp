#include "vfs/table/nfs_folder_dir_plus_cache.h"

#include <limits>
#include <utility>

CNfsFolderDirPlusCache::CNfsFolderDirPlusCache(const CNfsNameMap& names, std::size_t hiddenCount)
    : hiddenCount_(hiddenCount) {
  entries_.reserve(names.size());
  for (const auto& [name, fid] : names)
    entries_.push_back({name, fid});
}

CNfsFolderDirPlusCache::CNfsFolderDirPlusCache(std::vector<SEntry> entries, std::size_t hiddenCount)
    : entries_(std::move(entries)), hiddenCount_(hiddenCount) {}

CNfsFolderDirPlusCache::SPage CNfsFolderDirPlusCache::TakePage(std::uint64_t cookie) const noexcept {
  SPage page;
  const std::uint64_t count = entries_.size();
  if (cookie > std::numeric_limits<std::uint32_t>::max() || cookie >= count)
    return page;

  std::uint64_t end = cookie + PageSize;
  if (end > std::numeric_limits<std::uint32_t>::max() || end >= count) {
    end = count;
  } else {
    page.eof = false;
  }
  page.entries = std::span(entries_).subspan(cookie, end - cookie);
  page.firstCookie = cookie + 1;
  return page;
}
