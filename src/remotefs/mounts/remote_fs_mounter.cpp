#include "remotefs/mounts/remote_fs_mounter.h"

#include <boost/make_shared.hpp>
#include <vector>

#include "foundation/log.h"
#include "platform/text.h"
#include "remotefs/items/remote_fs_file.h"
#include "remotefs/items/remote_fs_folder.h"
#include "vfs/items/async_fs_file_wrapper.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/host_folder_path.h"
#include "vfs/table/nfs_log_filter.h"

namespace {

constexpr std::int32_t PoolSize = 1;

void LogMount(const GUID& mountUid, const CBackupMountCfg& cfg) {
  g_nfs_log.Info("{");
  g_nfs_log.Info("    Mount ID: [%1]", platform::GuidToText(mountUid));
  g_nfs_log.Info("    VM name: [%1].", cfg.vmName);
  g_nfs_log.Info("    Comment: [%1]", cfg.description);
  g_nfs_log.Info("    NFS folder ID: [%1]", platform::GuidToText(cfg.nfsFolderID));
  g_nfs_log.Info("    Mount point: [%1]", cfg.mountPoint);
  g_nfs_log.Info("    Pipe: [%1]", cfg.pipe);
  g_nfs_log.Info("    Allowed ESX host: [%1]", cfg.allowedHostAddr);
  g_nfs_log.Info("}");
}

/// The file of an agent, out of its wrapper; empty for any other item.
boost::shared_ptr<CRemoteFsFile> AsRemoteFile(const boost::shared_ptr<IFsItem>& item) {
  const auto wrapper = boost::dynamic_pointer_cast<CAsyncFsFileWrapper>(item);
  return wrapper ? boost::dynamic_pointer_cast<CRemoteFsFile>(wrapper->File())
                 : boost::dynamic_pointer_cast<CRemoteFsFile>(item);
}

/// Runs a removal; a client may have been faster.
template <typename Removal>
void RemoveIfThere(const Removal& removal) {
  try {
    removal();
  } catch (const CVirtualFsExc& failure) {
    if (failure.Status() != NFS3ERR_NOENT)
      throw;
  }
}

}  // namespace

/// The right to change one mount.
class CRemoteFsMounter::CChange {
 public:
  CChange(CRemoteFsMounter& mounter, const GUID& mountUid) : mounter_(mounter), mountUid_(mountUid) {
    std::unique_lock lock(mounter_.lock_);
    mounter_.changed_.wait(lock, [this] { return mounter_.changing_.insert(mountUid_).second; });
  }
  CChange(const CChange&) = delete;
  CChange& operator=(const CChange&) = delete;
  ~CChange() {
    const std::lock_guard lock(mounter_.lock_);
    mounter_.changing_.erase(mountUid_);
    mounter_.changed_.notify_all();
  }

 private:
  CRemoteFsMounter& mounter_;
  const GUID mountUid_;
};

CRemoteFsMounter::CRemoteFsMounter(const mounts_cfg_t& mountsCfg, boost::shared_ptr<CFsItemsTab> itemsTab,
                                   boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator,
                                   boost::shared_ptr<CNfsLogFilter> agentLossReport, const SRemoteFsLimits& limits)
    : itemsTab_(std::move(itemsTab)),
      completionEventsAllocator_(std::move(completionEventsAllocator)),
      agentLossReport_(std::move(agentLossReport)),
      limits_(limits) {
  Resume(mountsCfg);
}

CRemoteFsMounter::~CRemoteFsMounter() {
  for (const auto& [uid, mount] : mounts_)
    mount.second->Stop();
}

boost::shared_ptr<CRemoteFsConnector> CRemoteFsMounter::MakeConnector(
    const boost::shared_ptr<CBackupMountCfg>& cfg) const {
  return CRemoteFsConnector::Create(cfg, completionEventsAllocator_, PoolSize, limits_);
}

void CRemoteFsMounter::Resume(const mounts_cfg_t& mountsCfg) {
  g_nfs_log.Info("Resuming backup mounts.");
  try {
    for (const auto& [uid, cfg] : mountsCfg) {
      const auto connector = MakeConnector(cfg);
      LogMount(uid, *cfg);
      connector->ConnectNoThrow();
      Publish(uid, {cfg, connector}, {});
    }
  } catch (const std::exception&) {
    for (const auto& [uid, mount] : mounts_)
      mount.second->Stop();
    throw;
  }
}

void CRemoteFsMounter::Mount(const GUID& mountUid, const boost::shared_ptr<CBackupMountCfg>& cfg,
                             const store_t& store) {
  // The catalogue would take its items for the host's.
  if (mountUid.IsNil())
    throw exc::runtime_exc_t("A backup mount cannot have the ID [%1].", platform::GuidToText(mountUid));
  const CChange change(*this, mountUid);
  LogMount(mountUid, *cfg);
  const auto connector = MakeConnector(cfg);
  connector->Connect();
  Publish(mountUid, {cfg, connector}, FindMount(mountUid));
  if (store)
    store();
}

std::uint64_t CRemoteFsMounter::FindMountFolder(const CBackupMountCfg& cfg) {
  const std::uint64_t fid = SyncHostFolderPath(*itemsTab_, cfg.nfsFolderID, cfg.mountPoint);
  if (fid == InvalidFid || !boost::dynamic_pointer_cast<IFsFolder>(itemsTab_->GetItem(fid)))
    throw exc::runtime_exc_t("The specified mount folder does not exist.");
  return fid;
}

void CRemoteFsMounter::Publish(const GUID& mountUid, const mount_t& mount, const mount_t& replaced) {
  const CBackupMountCfg& cfg = *mount.first;
  try {
    const std::uint64_t fid = FindMountFolder(cfg);
    // All that may be refused comes before anything of the replaced one goes.
    itemsTab_->MountMirroredFolder(fid, mountUid, boost::make_shared<CRemoteFsFolder>(mount.second, "", mountUid));
    PutMount(mountUid, mount);
    if (replaced.second)
      Retire(mountUid, replaced, fid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow(
        "Failed to publish backup items. VM: [%1]. Comment: [%2]. NFS mount point: [%3]. Mount ID: [%4].", failure,
        cfg.vmName, cfg.description, cfg.mountPoint, platform::GuidToText(mountUid));
  }
}

void CRemoteFsMounter::Retire(const GUID& mountUid, const mount_t& replaced, std::uint64_t folderFid) {
  try {
    // What came through the connector before would wait for it for ever.
    RemoveItems(mountUid, *replaced.first, folderFid);
  } catch (...) {
    replaced.second->Stop();
    throw;
  }
  replaced.second->Stop();
}

void CRemoteFsMounter::Dismount(const GUID& mountUid, const store_t& store) {
  const CChange change(*this, mountUid);
  if (const mount_t mount = FindMount(mountUid); mount.second) {
    Withdraw(mountUid, mount);
  } else {
    g_nfs_log.Warning("Mount configuration \"%1\" was not found.", platform::GuidToText(mountUid));
  }
  if (store)
    store();
}

void CRemoteFsMounter::Withdraw(const GUID& mountUid, const mount_t& mount) {
  RemoveItems(mountUid, *mount.first, InvalidFid);
  {
    const std::lock_guard lock(lock_);
    mounts_.erase(mountUid);
  }
  mount.second->Stop();
}

void CRemoteFsMounter::RemoveItems(const GUID& mountUid, const CBackupMountCfg& cfg, std::uint64_t keptFid) {
  std::uint64_t rootFid = InvalidFid;
  boost::shared_ptr<CNfsShareCfg> share;
  if (!itemsTab_->GetShareCfg(cfg.nfsFolderID, rootFid, share)) {
    g_nfs_log.Warning("Backup mount \"%1\" refers to the unknown NFS share \"%2\".", platform::GuidToText(mountUid),
                      platform::GuidToText(cfg.nfsFolderID));
    return;
  }
  std::vector<std::uint64_t> folders{rootFid};
  std::vector<SNfsChild> children;
  while (!folders.empty()) {
    const std::uint64_t folder = folders.back();
    folders.pop_back();
    // The folder's own backing first: without it nothing of the mount can come in any more.
    if (folder != keptFid && itemsTab_->GetItemForMount(folder, mountUid))
      RemoveIfThere([&] { itemsTab_->RemoveItemForMount(folder, mountUid); });
    itemsTab_->ListChildren(folder, children);
    for (const SNfsChild& child : children) {
      if (boost::dynamic_pointer_cast<IFsFolder>(child.item)) {
        folders.push_back(child.fid);
      } else if (itemsTab_->GetItemForMount(child.fid, mountUid)) {
        RemoveIfThere([&] { itemsTab_->RemoveItem(child.fid); });
      }
    }
  }
}

CRemoteFsMounter::mount_t CRemoteFsMounter::FindMount(const GUID& mountUid) const {
  const std::lock_guard lock(lock_);
  const auto mount = mounts_.find(mountUid);
  return mount == mounts_.end() ? mount_t() : mount->second;
}

void CRemoteFsMounter::PutMount(const GUID& mountUid, const mount_t& mount) {
  const std::lock_guard lock(lock_);
  mounts_.insert_or_assign(mountUid, mount);
}

std::uint64_t CRemoteFsMounter::FindRootFid(const GUID& mountUid) const {
  const mount_t mount = FindMount(mountUid);
  if (!mount.second)
    throw exc::runtime_exc_t("The specified RFS mount is not registered in the mounts table.");
  const CBackupMountCfg& cfg = *mount.first;
  const std::string shareText = platform::GuidToText(cfg.nfsFolderID);
  std::uint64_t fid = InvalidFid;
  boost::shared_ptr<CNfsShareCfg> share;
  if (!itemsTab_->GetShareCfg(cfg.nfsFolderID, fid, share))
    throw exc::runtime_exc_t("NFS share with ID [%1] does not exists.", shareText);
  for (const std::string_view component : platform::SplitPath(cfg.mountPoint)) {
    fid = itemsTab_->LookupChild(fid, component);
    if (fid == InvalidFid) {
      throw exc::runtime_exc_t(
          "NFS root of the mounted backup items ([%1]:[%2]) is not registered in the NFS items catalog.", shareText,
          cfg.mountPoint);
    }
  }
  g_nfs_log.Info("Found root of the RFS: [%1:%2].", shareText, cfg.mountPoint);
  return fid;
}

std::uint64_t CRemoteFsMounter::ResolveMountRootFid(const GUID& mountUid) const {
  try {
    return FindRootFid(mountUid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to resolve RFS mount UID to FID. Mount UID: [%1].", failure,
                       platform::GuidToText(mountUid));
  }
}

void CRemoteFsMounter::GetMounts(bool connected, connectors_t& mounts) const {
  std::map<GUID, mount_t> all;
  {
    const std::lock_guard lock(lock_);
    all = mounts_;
  }
  // Asked without the lock: a connector that is just connecting answers when it is done.
  mounts.clear();
  for (const auto& [uid, mount] : all) {
    if (mount.second->IsConnected() == connected)
      mounts.emplace(uid, mount.second);
  }
}

void CRemoteFsMounter::GetActiveMounts(connectors_t& mounts) const {
  try {
    GetMounts(true, mounts);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate active RFS mounts.", failure);
  }
}

void CRemoteFsMounter::GetInactiveMounts(connectors_t& mounts) const {
  try {
    GetMounts(false, mounts);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate inactive RFS mounts.", failure);
  }
}

void CRemoteFsMounter::GetActiveConnections(std::list<std::string>& vmNames) const {
  try {
    connectors_t mounts;
    GetActiveMounts(mounts);
    for (const auto& [uid, connector] : mounts) {
      try {
        vmNames.push_back(connector->GetConfig()->vmName);
      } catch (const std::exception& failure) {
        g_nfs_log.Warning(
            exc::FormatText("Failed to reconnect remote FS. FS mount point: [%1].", connector->GetConfig()->pipe),
            failure);
      }
    }
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Get active connections has failed.", failure);
  }
}

void CRemoteFsMounter::ReconnectTree(std::uint64_t rootFid, const GUID& mountUid) {
  std::vector<std::uint64_t> fids{rootFid};
  while (!fids.empty()) {
    const std::uint64_t fid = fids.back();
    fids.pop_back();
    if (!ReconnectItem(fid, mountUid))
      continue;
    std::set<std::uint64_t> children;
    itemsTab_->ListChildFidsForMount(fid, mountUid, children);
    fids.insert(fids.end(), children.rbegin(), children.rend());
  }
}

bool CRemoteFsMounter::ReconnectItem(std::uint64_t fid, const GUID& mountUid) {
  const auto item = itemsTab_->GetItemForMount(fid, mountUid);
  if (!item)
    return false;
  bool notFound = false;
  if (const auto folder = boost::dynamic_pointer_cast<CRemoteFsFolder>(item)) {
    folder->Reopen(notFound);
    LogReconnected(notFound ? "RFS Folder [%1] is orphaned and will be deleted." : "RFS folder [%1] was reconnected.",
                   fid);
  } else if (const auto file = AsRemoteFile(item)) {
    file->Reopen(notFound);
    LogReconnected(notFound ? "RFS file [%1] is orphaned and will be deleted." : "RFS file [%1] was reconnected.", fid);
  } else {
    g_nfs_log.Warning("Item [%1] does not belong to the mounted filesystem.", itemsTab_->GetItemPath(fid));
    return false;
  }
  if (notFound)
    RemoveIfThere([&] { itemsTab_->RemoveItemForMount(fid, mountUid); });
  return !notFound;
}

void CRemoteFsMounter::LogReconnected(std::string_view pattern, std::uint64_t fid) const {
  if (g_nfs_log.IsVerbose())
    g_nfs_log.Verbose(pattern, itemsTab_->GetItemPath(fid));
}

void CRemoteFsMounter::ReportLost(const GUID& mountUid, const CBackupMountCfg& cfg) {
  agentLossReport_->ReportLost(mountUid, cfg);
}
