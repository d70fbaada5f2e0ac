// Listing folders.
#include <bit>
#include <boost/make_shared.hpp>
#include <map>
#include <utility>
#include <vector>

#include "foundation/log.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/operation.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// Items that are opened before they are added together: bounds what a large folder holds in the air.
constexpr std::size_t MaxNewItems = 4096;

/// Finds names without regard to case among those of a vector, which stays as it is meanwhile.
class CNameIndex {
 public:
  explicit CNameIndex(const std::vector<SNfsChild>& children)
      : children_(children), places_(std::bit_ceil(2 * children.size() + 1), Free) {
    for (std::size_t i = 0; i < children_.size(); ++i) {
      std::size_t place = FirstPlace(children_[i].name);
      while (places_[place] != Free)
        place = Next(place);
      places_[place] = i;
    }
  }

  /// The index, or None.
  std::size_t Find(std::string_view name) const {
    for (std::size_t place = FirstPlace(name); places_[place] != Free; place = Next(place)) {
      if (platform::EqualIgnoringCase(children_[places_[place]].name, name))
        return places_[place];
    }
    return None;
  }

  static constexpr std::size_t None = ~std::size_t{0};

 private:
  static constexpr std::size_t Free = None;

  std::size_t FirstPlace(std::string_view name) const {
    // Clients choose names; that they cannot choose such as meet is the seed's work.
    static const std::uint64_t seed = platform::NewHashSeed();
    return platform::HashIgnoringCase(name, seed) & (places_.size() - 1);
  }
  std::size_t Next(std::size_t place) const { return (place + 1) & (places_.size() - 1); }

  const std::vector<SNfsChild>& children_;
  std::vector<std::size_t> places_;
};

/// Collects what the backends list. What is known already, which is nearly all, is neither copied nor sorted.
class CListing {
 public:
  CListing(CFsItemsTab& itemsTab, std::uint64_t folderFid, std::uint64_t version)
      : itemsTab_(itemsTab),
        folderFid_(folderFid),
        version_(version),
        known_(ListKnown(itemsTab, folderFid)),
        isListed_(known_.size()),
        index_(known_) {}

  void AddBackend(IFsFolder& folder) {
    SFsEnumeration enumeration;
    folder.Enumerate(enumeration);
    if (enumeration.state) {
      states_.push_back(*enumeration.state);
    } else {
      isRepeatable_ = false;
    }
    if (enumeration.unavailable) {
      AddChildrenOf(enumeration.mountUid);
      return;
    }
    bool isLost = false;
    for (std::string& name : enumeration.names) {
      isLost = !AddName(folder, std::move(name));
      if (isLost)
        break;
    }
    AddNewItems(folder);
    if (isLost) {
      isRepeatable_ = false;
      AddChildrenOf(enumeration.mountUid);
    }
  }

  /// What the table knows and no backend has.
  void RemoveGone() {
    for (std::size_t i = 0; i < known_.size(); ++i) {
      if (!isListed_[i])
        itemsTab_.RemoveChildIf(folderFid_, known_[i].name, known_[i].fid, known_[i].item.get());
    }
  }

  /// All that was listed, in the order of the names. Ends the collection.
  boost::shared_ptr<CNfsWholeListing> Take() {
    std::vector<CNfsFolderDirPlusCache::SEntry> entries;
    std::vector<boost::shared_ptr<IFsItem>> items;
    entries.reserve(known_.size() + found_.size());
    items.reserve(known_.size() + found_.size());
    const auto take = [&](SNfsChild& child) {
      entries.push_back({std::move(child.name), child.fid});
      items.push_back(std::move(child.item));
    };
    auto found = found_.begin();
    for (std::size_t i = 0; i < known_.size(); ++i) {
      if (!isListed_[i])
        continue;
      for (; found != found_.end() && platform::CompareIgnoringCase(found->first, known_[i].name) < 0; ++found)
        take(found->second);
      take(known_[i]);
    }
    for (; found != found_.end(); ++found)
      take(found->second);
    return boost::make_shared<CNfsWholeListing>(std::move(entries), std::move(items), version_,
                                                isRepeatable_ ? std::move(states_) : std::vector<SFsFolderState>{});
  }

 private:
  static std::vector<SNfsChild> ListKnown(const CFsItemsTab& itemsTab, std::uint64_t folderFid) {
    std::vector<SNfsChild> children;
    itemsTab.ListChildren(folderFid, children);
    return children;
  }

  /// False when the backing has been lost over it: each further name would take the time of one that fails.
  bool AddName(IFsFolder& folder, std::string name) {
    if (const std::size_t known = index_.Find(name); known != CNameIndex::None) {
      if (!isListed_[known] && known_[known].name != name)
        known_[known].name = std::move(name);
      isListed_[known] = true;
      return true;
    }
    if (found_.contains(name))
      return true;
    auto item = Open(folder, name);
    if (!item)
      return folder.IsAvailable();
    newItems_.push_back({std::move(name), InvalidFid, std::move(item)});
    if (newItems_.size() == MaxNewItems)
      AddNewItems(folder);
    return true;
  }

  void AddChildrenOf(const GUID& mountUid) {
    CNfsNameMap children;
    itemsTab_.ListChildrenForMount(folderFid_, mountUid, children);
    for (const auto& [name, fid] : children) {
      if (const std::size_t known = index_.Find(name); known != CNameIndex::None) {
        isListed_[known] = true;
      } else if (auto item = itemsTab_.GetItem(fid)) {
        found_.try_emplace(name, SNfsChild{name, fid, std::move(item)});
      }
    }
  }

  /// An entry that cannot be opened, as a link that leads out of the share, does not hide the others.
  boost::shared_ptr<IFsItem> Open(IFsFolder& folder, const std::string& name) {
    try {
      return folder.OpenChild(name);
    } catch (const std::exception& failure) {
      g_nfs_log.Warning("Item [%1] cannot be opened and is left out of the listing.", failure, name);
      isRepeatable_ = false;
      return {};
    }
  }

  void AddNewItems(const IFsFolder& folder) {
    itemsTab_.AddItems(folderFid_, newItems_, &folder);
    for (SNfsChild& item : newItems_) {
      if (item.item)
        found_.try_emplace(item.name, std::move(item));
    }
    newItems_.clear();
  }

  CFsItemsTab& itemsTab_;
  const std::uint64_t folderFid_;
  const std::uint64_t version_;
  std::vector<SNfsChild> known_;
  std::vector<bool> isListed_;
  const CNameIndex index_;
  std::map<std::string, SNfsChild, platform::less_ignoring_case_t> found_;
  std::vector<SNfsChild> newItems_;
  std::vector<SFsFolderState> states_;
  bool isRepeatable_ = true;
};

/// A kept listing that its backings would give again.
boost::shared_ptr<CNfsWholeListing> FindKept(CFsItemsTab& itemsTab, std::uint64_t folderFid,
                                             const std::vector<boost::shared_ptr<IFsFolder>>& mirrors) {
  auto kept = itemsTab.GetWholeListing(folderFid);
  if (!kept || kept->States().size() != mirrors.size())
    return {};
  for (std::size_t i = 0; i < mirrors.size(); ++i) {
    if (mirrors[i]->GetState() != kept->States()[i])
      return {};
  }
  return kept;
}

/// An item whose mount is being withdrawn answers nothing any more, and does not hide the others.
bool IsVisible(IFsItem& item, const sockaddr_in& client) {
  try {
    return item.IsAddressAllowed(client);
  } catch (const std::exception&) {
    return false;
  }
}

boost::shared_ptr<CNfsFolderDirPlusCache> FilterListing(const boost::shared_ptr<CNfsWholeListing>& listing,
                                                        const sockaddr_in& client) {
  const auto& entries = listing->GetEntries();
  std::vector<bool> isHidden(entries.size());
  std::size_t hidden = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    isHidden[i] = !IsVisible(*listing->Items()[i], client);
    hidden += isHidden[i] ? 1 : 0;
  }
  if (hidden == 0)
    return listing;
  std::vector<CNfsFolderDirPlusCache::SEntry> allowed;
  allowed.reserve(entries.size() - hidden);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (!isHidden[i])
      allowed.push_back(entries[i]);
  }
  return boost::make_shared<CNfsFolderDirPlusCache>(std::move(allowed), hidden);
}

}  // namespace

boost::shared_ptr<CNfsWholeListing> CVirtualFs::RefreshDirListing(std::uint64_t folderFid) {
  try {
    // What the listing itself adds and removes gives the folder another version: kept is one that changed nothing.
    const std::uint64_t version = itemsTab_->GetFolderVersion(folderFid);
    std::vector<boost::shared_ptr<IFsFolder>> mirrors;
    itemsTab_->GetFolderMirrors(folderFid, mirrors);
    if (auto kept = FindKept(*itemsTab_, folderFid, mirrors))
      return kept;

    const std::uint64_t renamesEnded = renamesEnded_;
    CListing listing(*itemsTab_, folderFid, version);
    for (const auto& folder : mirrors)
      listing.AddBackend(*folder);
    // A rename beside the listing has one foot in the backend and one in the table: its item only looks gone. What is
    // really gone goes with the next listing.
    const bool isUndisturbed = renamesBegun_ == renamesEnded;
    if (isUndisturbed)
      listing.RemoveGone();
    auto whole = listing.Take();
    if (isUndisturbed && !mirrors.empty() && whole->States().size() == mirrors.size())
      itemsTab_->KeepWholeListing(folderFid, whole);
    return whole;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate directory items.", failure);
  }
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
        if (isNew) {
          listing = FilterListing(RefreshDirListing(fid), client);
          itemsTab_->RequireAllStored();
        }

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
