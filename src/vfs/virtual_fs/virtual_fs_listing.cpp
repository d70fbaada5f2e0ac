// Listing folders.
#include <boost/make_shared.hpp>
#include <utility>
#include <vector>

#include "foundation/log.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/operation.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// Items that are opened before they are added together: bounds what a large folder holds in the air.
constexpr std::size_t MaxNewItems = 4096;

/// Collects what the backends list.
class CListing {
 public:
  CListing(CFsItemsTab& itemsTab, std::uint64_t folderFid) : itemsTab_(itemsTab), folderFid_(folderFid) {
    itemsTab_.ListChildren(folderFid_, known_);
  }

  void AddBackend(IFsFolder& folder) {
    SFsEnumeration enumeration;
    folder.Enumerate(enumeration);
    if (enumeration.unavailable) {
      itemsTab_.ListChildrenForMount(folderFid_, enumeration.mountUid, actual_);
      return;
    }
    for (std::string& name : enumeration.names)
      AddName(folder, std::move(name));
    AddNewItems();
  }

  /// What the table knows and no backend has.
  void RemoveGone() {
    for (const auto& [name, fid] : known_) {
      if (!actual_.contains(name))
        itemsTab_.RemoveChildIf(folderFid_, name, fid);
    }
  }

  const CNfsNameMap& Actual() const { return actual_; }

 private:
  void AddName(IFsFolder& folder, std::string name) {
    if (actual_.contains(name))
      return;
    if (const auto known = known_.find(name); known != known_.end()) {
      actual_.emplace(std::move(name), known->second);
      return;
    }
    if (auto item = Open(folder, name)) {
      newItems_.push_back({std::move(name), std::move(item)});
      if (newItems_.size() == MaxNewItems)
        AddNewItems();
    }
  }

  /// An entry that cannot be opened, as a link that leads out of the share, does not hide the others.
  static boost::shared_ptr<IFsItem> Open(IFsFolder& folder, const std::string& name) {
    try {
      return folder.OpenChild(name);
    } catch (const std::exception& failure) {
      g_nfs_log.Warning(exc::FormatText("Item [%1] cannot be opened and is left out of the listing.", name), failure);
      return {};
    }
  }

  void AddNewItems() {
    itemsTab_.AddItems(folderFid_, newItems_);
    for (SNfsNewItem& item : newItems_)
      actual_.emplace(std::move(item.name), item.fid);
    newItems_.clear();
  }

  CFsItemsTab& itemsTab_;
  const std::uint64_t folderFid_;
  CNfsNameMap known_;
  CNfsNameMap actual_;
  std::vector<SNfsNewItem> newItems_;
};

}  // namespace

boost::shared_ptr<CNfsFolderDirPlusCache> CVirtualFs::RefreshDirListing(std::uint64_t folderFid) {
  try {
    const std::uint64_t renamesEnded = renamesEnded_;
    CListing listing(*itemsTab_, folderFid);
    std::vector<boost::shared_ptr<IFsFolder>> mirrors;
    itemsTab_->GetFolderMirrors(folderFid, mirrors);
    for (const auto& folder : mirrors)
      listing.AddBackend(*folder);
    // A rename beside the listing has one foot in the backend and one in the table: its item only looks gone. What is
    // really gone goes with the next listing.
    if (renamesBegun_ == renamesEnded)
      listing.RemoveGone();
    return boost::make_shared<CNfsFolderDirPlusCache>(listing.Actual());
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate directory items.", failure);
  }
}

boost::shared_ptr<CNfsFolderDirPlusCache> CVirtualFs::FilterListing(const CNfsFolderDirPlusCache& listing,
                                                                    const sockaddr_in& client) {
  const auto& entries = listing.GetEntries();
  std::vector<std::uint64_t> fids;
  fids.reserve(entries.size());
  for (const auto& entry : entries)
    fids.push_back(entry.fid);
  const auto items = itemsTab_->GetItems(fids);

  std::vector<CNfsFolderDirPlusCache::SEntry> allowed;
  allowed.reserve(entries.size());
  std::size_t hidden = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!items[i])
      continue;  // Removed since it was listed.
    if (items[i]->IsAddressAllowed(client)) {
      allowed.push_back(entries[i]);
    } else {
      ++hidden;
    }
  }
  return boost::make_shared<CNfsFolderDirPlusCache>(std::move(allowed), hidden);
}

void CVirtualFs::ReadDirPlus(const READDIRPLUS3args& args, const sockaddr_in& client,
                             READDIRPLUS3res& result) noexcept {
  std::uint64_t fid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        fid = FidFromHandle(args.dir);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Listing directory [%1]. Cookie: [%2]. Requested from %3.", itemsTab_->GetItemPath(fid),
                            args.cookie, AddressText(client));
        }
        const std::uint32_t clientKey = client.sin_addr.s_addr;
        boost::shared_ptr<CNfsFolderDirPlusCache> listing;
        if (args.cookie != 0)
          listing = itemsTab_->GetDirPlusCache(fid, clientKey);
        const bool isNew = !listing;
        if (isNew)
          listing = FilterListing(*RefreshDirListing(fid), client);

        const auto page = listing->TakePage(args.cookie);
        result.entries.clear();
        result.entries.reserve(page.entries.size());
        std::uint64_t cookie = page.firstCookie;
        for (const auto& entry : page.entries) {
          result.entries.push_back({.fileid = entry.fid,
                                    .name = entry.name,
                                    .cookie = cookie++,
                                    .nameAttributes = {},
                                    .nameHandle = HandleFromFid(entry.fid)});
        }
        result.eof = page.eof;
        if (page.eof) {
          g_nfs_log.Verbose("EOF is reached");
          itemsTab_->ResetDirPlusCache(fid, clientKey);
        } else if (isNew) {
          itemsTab_->SetDirPlusCache(fid, clientKey, listing);
        }
        result.status = NFS3_OK;
        if (listing->HiddenCount() == 0) {
          g_nfs_log.Verbose("Directory listed.");
        } else {
          g_nfs_log.Verbose("Directory listed. Not accessible items: %1.", listing->HiddenCount());
        }
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error(
            exc::FormatText("[Dir] Failed to list content of the folder [%1].", itemsTab_->GetItemPath(fid)), failure);
      });
}
