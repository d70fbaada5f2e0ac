// Shares, mounts and folders, as administrators manage them.
#include <boost/make_shared.hpp>
#include <list>
#include <utility>

#include "config/backup_mount_cfg.h"
#include "config/nfs_share_cfg.h"
#include "config/reg_config.h"
#include "foundation/log.h"
#include "hostfs/host_fs_folder.h"
#include "platform/text.h"
#include "remotefs/mounts/remote_fs_mounter.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/host_folder_path.h"
#include "vfs/virtual_fs/operation.h"
#include "vfs/virtual_fs/virtual_fs.h"

void CVirtualFs::CheckNotLocked() const {
  if (isLocked_)
    throw exc::runtime_exc_t("Virtual file system is locked.");
}

GUID CVirtualFs::CreateShare(const boost::shared_ptr<CNfsShareCfg>& cfg) {
  CheckNotLocked();
  try {
    g_nfs_log.Info("[COM] Creating NFS share [%1] (Local path: [%2]).", cfg->nfsFolderName, cfg->localPath);
    const GUID uid = platform::NewGuid();
    const std::lock_guard change(sharesMutex_);
    MountShare(uid, cfg, InvalidFid);
    regConfig_->SaveShare(uid, *cfg);
    g_nfs_log.Info("[COM] NFS share \"%1\" is created.", cfg->nfsFolderName);
    return uid;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to create NFS share. NFS folder path: [%1]. Local folder name: [%2].", failure,
                       cfg->nfsFolderName, cfg->localPath);
  }
}

void CVirtualFs::DismountShare(const GUID& uid) {
  CheckNotLocked();
  g_nfs_log.Info("[COM] Dismounting NFS share (ID: [%1]).", platform::GuidToText(uid));
  {
    const std::lock_guard change(sharesMutex_);
    regConfig_->RemoveShare(uid);
    itemsTab_->UnregisterShare(uid);
  }
  g_nfs_log.Info("[COM] NFS share was dismounted.");
}

void CVirtualFs::MountBackupItems(const GUID& mountUid, const boost::shared_ptr<CBackupMountCfg>& cfg) {
  CheckNotLocked();
  try {
    g_nfs_log.Info("[COM] Mounting backup items.");
    mounter_->Mount(mountUid, cfg, [&] { regConfig_->SaveMount(mountUid, *cfg); });
    g_nfs_log.Info("[COM] Items were mounted");
    g_nfs_log.Info("[COM] Backup items were mounted.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to mount backup items. VM name: [%1]. Comment: [%2]. Mount point: [%3].", failure,
                       cfg->vmName, cfg->description, cfg->mountPoint);
  }
}

void CVirtualFs::DismountBackupItems(const GUID& mountUid) {
  CheckNotLocked();
  const std::string uidText = platform::GuidToText(mountUid);
  try {
    g_nfs_log.Info("[COM] Dismounting backup items. Mount ID: [%1].", uidText);
    mounter_->Dismount(mountUid, [&] { regConfig_->RemoveMount(mountUid); });
    g_nfs_log.Info("[COM] Items were dismounted.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to unmount backup items. Mount ID: [%1].", failure, uidText);
  }
}

std::string CVirtualFs::CreateHostFolder(const GUID& uid, const std::string& relativePath,
                                         const std::string& allowedHostAddr) {
  CheckNotLocked();
  const std::string uidText = platform::GuidToText(uid);
  try {
    g_nfs_log.Info("Creating folder [%1] in the NFS share with ID [%2]. Allow access from host [%3].", relativePath,
                   uidText, allowedHostAddr);
    std::uint64_t fid = InvalidFid;
    boost::shared_ptr<CNfsShareCfg> cfg;
    if (!itemsTab_->GetShareCfg(uid, fid, cfg)) {
      throw exc::runtime_exc_t("There is no NFS folder with UID [%1].", uidText);
    }
    const auto components = platform::SplitPath(relativePath);
    for (const std::string_view component : components)
      CheckNewName(component);
    for (const std::string_view component : components) {
      fid = MakeSubfolder(*GetHostFolder(*itemsTab_, fid), fid, std::string(component), allowedHostAddr);
    }
    const auto folder = boost::dynamic_pointer_cast<CHostFsFolder>(itemsTab_->GetItem(fid));
    if (!folder)
      throw exc::runtime_exc_t("The specified folder was not registered in the items table.");
    std::string localPath = folder->LocalPath();
    g_nfs_log.Info("Created new folder. Local path: [%1]. FID: [%2].", localPath, fid);
    return localPath;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to create folder. NFS share ID: [%1]. Folder relative path: [%2].", failure, uidText,
                       relativePath);
  }
}

void CVirtualFs::DeleteHostFolder(const GUID& uid, const std::string& relativePath) {
  CheckNotLocked();
  const std::string uidText = platform::GuidToText(uid);
  try {
    g_nfs_log.Info("Deleting folder [%1] from the NFS share with ID [%2].", relativePath, uidText);
    std::uint64_t rootFid = InvalidFid;
    boost::shared_ptr<CNfsShareCfg> cfg;
    if (!itemsTab_->GetShareCfg(uid, rootFid, cfg)) {
      throw exc::runtime_exc_t("There is no NFS folder with UID [%1].", uidText);
    }
    g_nfs_log.Info("ShareId resolved to alias \"%1\"(local path: [%2]).", cfg->nfsFolderName, cfg->localPath);
    const std::uint64_t fid = SyncHostFolderPath(*itemsTab_, uid, relativePath);
    if (fid == InvalidFid) {
      g_nfs_log.Info("Folder [%1] is already deleted from share [%2].", relativePath, uidText);
      return;
    }
    // Said before the disk is touched: an empty path must not cost the datastore.
    if (fid == rootFid) {
      throw exc::runtime_exc_t("Item [%1] refers to the root of the NFS share and cannot be deleted.",
                               cfg->nfsFolderName);
    }
    const auto folder = GetHostFolder(*itemsTab_, fid);
    g_nfs_log.Info("    Local folder path: [%1] (FID: [%2]).", folder->LocalPath(), fid);
    folder->DeleteRecursively();
    itemsTab_->RemoveItem(fid);
    g_nfs_log.Info("Folder successfully deleted.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to remove folder. NFS share ID: [%1]. Folder relative path: [%2].", failure, uidText,
                       relativePath);
  }
}

boost::shared_ptr<CNfsShareCfg> CVirtualFs::GetShareCfgCopy(const GUID& uid) {
  CheckNotLocked();
  std::uint64_t fid = InvalidFid;
  boost::shared_ptr<CNfsShareCfg> cfg;
  if (!itemsTab_->GetShareCfg(uid, fid, cfg)) {
    throw exc::runtime_exc_t("NFS shared folder with ID \"%1\" is not registered or disconnected.",
                             platform::GuidToText(uid));
  }
  return boost::make_shared<CNfsShareCfg>(*cfg);
}

nfs_fh3 CVirtualFs::GetShareHandle(const std::string& alias) {
  return HandleFromFid(itemsTab_->GetShareFidByAlias(alias));
}

GUID CVirtualFs::GetShareId(const std::string& alias) {
  CheckNotLocked();
  return itemsTab_->GetShareIdByAlias(alias);
}

std::set<service_lock_t> CVirtualFs::EnumLocks() {
  g_nfs_log.Info("Enumerating service locks.");
  try {
    std::list<std::string> vmNames;
    mounter_->GetActiveConnections(vmNames);
    std::set<service_lock_t> locks;
    for (std::string& vmName : vmNames)
      locks.emplace(std::move(vmName), std::string());
    return locks;
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate service locks.", failure);
  }
}
