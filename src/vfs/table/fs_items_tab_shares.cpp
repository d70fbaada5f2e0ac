// The shares, and what mounts and listings ask of the table.
#include <boost/make_shared.hpp>
#include <utility>

#include "config/nfs_share_cfg.h"
#include "config/reg_config_update_sink.h"
#include "foundation/log.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab.h"

namespace {

using lock_t = std::lock_guard<platform::brief_mutex_t<std::recursive_mutex>>;

exc::runtime_exc_t NotRegistered(const std::string& alias) {
  return exc::runtime_exc_t("The specified NFS folder is not registered  (%1).", alias);
}

exc::runtime_exc_t NotFolder(const CNfsItemRec& rec) {
  return exc::runtime_exc_t("Item [%1] is not folder. Parent FID: [%2].", rec.name, rec.parentFid);
}

}  // namespace

CNfsShareAlreadyRegisteredExc::CNfsShareAlreadyRegisteredExc(const std::string& alias, const GUID& uid)
    : exc_of_t(exc::FormatText("NFS share already registered. NFS mount point: [%1]. Share UID: [%2].", alias,
                               platform::GuidToText(uid))) {}

std::string CNfsShareAlreadyRegisteredExc::GetKind() const {
  return "CNfsShareAlreadyRegisteredExc";
}

void CFsItemsTab::RegisterShare(const boost::shared_ptr<CNfsShareCfg>& cfg, const GUID& uid,
                                const boost::shared_ptr<IFsItem>& rootItem, std::uint64_t wantedFid) {
  const std::string& alias = cfg->nfsFolderName;
  try {
    SFsItemSpec spec;
    rootItem->GetItemSpec(spec);

    const lock_t lock(mutex_);
    if (FindShare(alias, nullptr) != nullptr || shares_.contains(uid))
      throw CNfsShareAlreadyRegisteredExc(alias, uid);
    DeleteAllAgain();
    const auto info = boost::make_shared<CNfsShareInfo>(CNfsShareInfo{uid, cfg});
    const bool isNew = wantedFid == InvalidFid;
    const std::uint64_t fid = isNew ? GenerateFid() : wantedFid;
    PutRec(fid, boost::make_shared<CNfsItemRec>(alias, InvalidFid, info, rootItem, spec.mountUid));
    g_nfs_log.Info("    NewItem: [%1]. FID: [%2]. Parent: [%3].", alias, fid, 0);
    if (isNew)
      updateSink_->OnItemAdded(InvalidFid, alias, fid, spec);
    shares_.emplace(uid, SShare{fid, cfg});
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to register NFS share in the items table. NFS mount path: [%1]", failure, alias);
  }
}

void CFsItemsTab::UnregisterShare(const GUID& uid) {
  try {
    RemoveAndLogShare(uid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to unregister NFS share with ID [%1]", failure, platform::GuidToText(uid));
  }
}

void CFsItemsTab::RemoveAndLogShare(const GUID& uid) {
  changes_t removed;
  try {
    const lock_t lock(mutex_);
    const auto share = shares_.find(uid);
    if (share == shares_.end()) {
      g_nfs_log.Info("Share already dismounted.");
      return;
    }
    g_nfs_log.Info("Share attributes: alias \"%1\", FID \"%2\", local path \"%3\".", share->second.cfg->nfsFolderName,
                   share->second.rootFid, share->second.cfg->localPath);
    if (FindRec(share->second.rootFid)) {
      Delete(share->second.rootFid, nullptr, true, removed);
    } else {
      DeleteAllAgain();  // An attempt before this one left nothing but what the registry has of it.
    }
    shares_.erase(share);
  } catch (...) {
    LogRemoved(removed);
    throw;
  }
  LogRemoved(removed);
}

void CFsItemsTab::GetShareUids(std::set<GUID>& uids) const {
  const lock_t lock(mutex_);
  for (const auto& share : shares_)
    uids.insert(share.first);
}

const CFsItemsTab::SShare* CFsItemsTab::FindShare(const std::string& alias, GUID* uid) const {
  for (const auto& [shareUid, share] : shares_) {
    if (!AreAliasesEqual(share.cfg->nfsFolderName, alias))
      continue;
    if (uid != nullptr)
      *uid = shareUid;
    return &share;
  }
  return nullptr;
}

bool CFsItemsTab::FindShareByAlias(const std::string& alias, GUID& uid) const {
  const lock_t lock(mutex_);
  return FindShare(alias, &uid) != nullptr;
}

std::uint64_t CFsItemsTab::GetShareFid(const GUID& uid) const {
  const lock_t lock(mutex_);
  const auto share = shares_.find(uid);
  if (share == shares_.end()) {
    throw exc::runtime_exc_t("NFS share with ID [%1] is not registered.", platform::GuidToText(uid));
  }
  return share->second.rootFid;
}

std::uint64_t CFsItemsTab::GetShareFidByAlias(const std::string& alias) const {
  const lock_t lock(mutex_);
  const SShare* share = FindShare(alias, nullptr);
  if (share == nullptr)
    throw NotRegistered(alias);
  return share->rootFid;
}

GUID CFsItemsTab::GetShareIdByAlias(const std::string& alias) const {
  GUID uid;
  bool isFound = false;
  try {
    isFound = FindShareByAlias(alias, uid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to retrieve NFS share ID (%1).", failure, alias);
  }
  if (!isFound)
    throw NotRegistered(alias);
  return uid;
}

bool CFsItemsTab::GetShareCfg(const GUID& uid, std::uint64_t& fid, boost::shared_ptr<CNfsShareCfg>& cfg) const {
  const lock_t lock(mutex_);
  const auto share = shares_.find(uid);
  if (share == shares_.end())
    return false;
  fid = share->second.rootFid;
  cfg = share->second.cfg;
  return true;
}

void CFsItemsTab::MountMirroredFolder(std::uint64_t folderFid, const GUID& mountUid,
                                      const boost::shared_ptr<IFsFolder>& mirror) {
  SFsItemSpec spec;
  mirror->GetItemSpec(spec);

  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(folderFid);
  if (!rec) {
    throw CVirtualFsExc("Folder with FID [%1] does not exists. Cannot mount mirrored sub-folder.",
                        std::to_string(folderFid), NFS3ERR_NOENT);
  }
  if (!rec->IsFolder())
    throw NotFolder(*rec);

  // Stored first: a mount that is refused must not be seen either, for nobody would take it away again.
  if (spec.isRfsItem)
    StoreMirror(folderFid, *rec, mountUid, std::move(spec));
  auto& mirrors = rec->Folder()->mirrors;
  auto place = mirrors.begin() + 1;
  for (GUID uid; place != mirrors.end(); ++place) {
    if ((*place)->GetMountUid(uid) && uid == mountUid)
      break;
  }
  if (place == mirrors.end()) {
    mirrors.push_back(mirror);
  } else {
    *place = mirror;
  }
  NoteFolderChange(folderFid);
}

void CFsItemsTab::StoreMirror(std::uint64_t folderFid, const CNfsItemRec& rec, const GUID& mountUid, SFsItemSpec spec) {
  // The address list is the item's, not the backing's: the stored one must stay as it is.
  spec.mountUid = mountUid;
  spec.allowedHostAddr = rec.Folder()->primary->GetAllowedHostAddr();
  const auto moved = movedItems_.find(folderFid);
  const SListingKey stored = moved == movedItems_.end() ? SListingKey{rec.parentFid, rec.name} : moved->second.stored;
  updateSink_->OnItemAdded(stored.parentFid, stored.name, folderFid, spec);
}

boost::shared_ptr<IFsItem> CFsItemsTab::GetItemForMount(std::uint64_t fid, const GUID& mountUid) const {
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  return rec ? rec->ItemForMount(mountUid) : boost::shared_ptr<IFsItem>();
}

void CFsItemsTab::GetFolderMirrors(std::uint64_t fid, std::vector<boost::shared_ptr<IFsFolder>>& mirrors) const {
  mirrors.clear();
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  if (rec && rec->IsFolder())
    mirrors = rec->Folder()->mirrors;
}

boost::shared_ptr<CNfsFolderDirPlusCache> CFsItemsTab::GetDirPlusCache(std::uint64_t fid, std::uint32_t client) {
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  if (!rec)
    return {};
  if (!rec->IsFolder())
    throw NotFolder(*rec);
  return slots_.Get({fid, client});
}

void CFsItemsTab::SetDirPlusCache(std::uint64_t fid, std::uint32_t client,
                                  const boost::shared_ptr<CNfsFolderDirPlusCache>& listing) {
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  if (rec && rec->IsFolder())
    slots_.Set({fid, client}, listing);
}

void CFsItemsTab::ResetDirPlusCache(std::uint64_t fid, std::uint32_t client) {
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  if (!rec)
    throw CVirtualFsExc("Folder with FID [%1] does not exists.", std::to_string(fid), NFS3ERR_NOENT);
  if (!rec->IsFolder())
    throw NotFolder(*rec);
  slots_.Reset({fid, client});
}

std::uint64_t CFsItemsTab::GetFolderVersion(std::uint64_t fid) const {
  const lock_t lock(mutex_);
  const rec_ptr rec = FindRec(fid);
  return rec && rec->IsFolder() ? rec->Folder()->version : 0;
}

boost::shared_ptr<CNfsWholeListing> CFsItemsTab::GetWholeListing(std::uint64_t fid) {
  const lock_t lock(mutex_);
  auto listing = slots_.GetWhole(fid);
  return listing && listing->Version() == GetFolderVersion(fid) ? listing : nullptr;
}

void CFsItemsTab::KeepWholeListing(std::uint64_t fid, const boost::shared_ptr<CNfsWholeListing>& listing) {
  boost::shared_ptr<CNfsWholeListing> replaced;  // A large one takes its time to go, which is not the lock's.
  const lock_t lock(mutex_);
  if (listing->Version() == 0 || listing->Version() != GetFolderVersion(fid))
    return;
  replaced = slots_.GetWhole(fid);
  slots_.SetWhole(fid, listing);
}

void CFsItemsTab::ListChildren(std::uint64_t parentFid, std::vector<SNfsChild>& children) const {
  // As in AddItems: nobody is to notice the lock, however large the folder is.
  constexpr std::size_t MaxStep = 4096;

  children.clear();
  for (bool isMore = true; isMore;) {
    const std::size_t end = children.size() + MaxStep;
    const lock_t lock(mutex_);
    auto child =
        children.empty() ? FirstChild(parentFid) : listing_.upper_bound(SListingPlace{parentFid, children.back().name});
    const auto isChild = [&] { return child != listing_.end() && child->rec->parentFid == parentFid; };
    for (; isChild() && children.size() < end; ++child)
      children.push_back({child->rec->name, child->fid, child->rec->Item()});
    isMore = isChild();
  }
}

void CFsItemsTab::ListChildrenForMount(std::uint64_t parentFid, const GUID& mountUid, CNfsNameMap& children) const {
  const lock_t lock(mutex_);
  for (auto child = FirstChild(parentFid); child != listing_.end() && child->rec->parentFid == parentFid; ++child) {
    if (child->rec->ItemForMount(mountUid)) {
      children.emplace_hint(children.end(), child->rec->name, child->fid);
    }
  }
}

void CFsItemsTab::ListChildFidsForMount(std::uint64_t parentFid, const GUID& mountUid,
                                        std::set<std::uint64_t>& fids) const {
  CNfsNameMap children;
  ListChildrenForMount(parentFid, mountUid, children);
  for (const auto& child : children)
    fids.insert(child.second);
}
