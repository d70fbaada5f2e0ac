#include "vfs/virtual_fs/virtual_fs.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <set>
#include <utility>
#include <vector>

#include "config/nfs_share_cfg.h"
#include "config/reg_config.h"
#include "config/reg_config_root_folder.h"
#include "config/reg_config_update_sink.h"
#include "foundation/log.h"
#include "hostfs/host_folders.h"
#include "hostfs/host_fs_folder.h"
#include "platform/memory.h"
#include "platform/text.h"
#include "remotefs/mounts/remote_fs_health_check_thread.h"
#include "remotefs/mounts/remote_fs_mounter.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/nfs_log_filter.h"
#include "vfs/virtual_fs/items_resumer.h"

CVirtualFs::CVirtualFs()
    : regConfig_(boost::make_shared<CRegConfig>()),
      logFilter_(boost::make_shared<CNfsLogFilter>()),
      completionEventsAllocator_(boost::make_shared<CCompletionEventsAllocator>()) {
  try {
    g_nfs_log.Info("Initializing virtual filesystem.");
    Initialize();
    platform::ReturnFreeMemory();  // What was read of the registry takes half as much as what was made of it.
    g_nfs_log.Info("Virtual filesystem is initialized.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to initialize virtual file system.", failure);
  }
}

// In reverse order, so that the invoker is there for as long as there are items that use it.
CVirtualFs::~CVirtualFs() {
  try {
    if (healthCheck_)
      healthCheck_->Stop();
    healthCheck_.reset();
    mounter_.reset();
    itemsTab_.reset();
    updateSink_.reset();
    invoker_.reset();
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to destroy virtual FS.", failure);
  }
}

void CVirtualFs::Initialize() {
  invoker_ = CFsProcInvoker::Create("hostfs", 1, completionEventsAllocator_);
  // What a damaged page hides would be taken for gone: its handles, its shares, the place of the root folder.
  regConfig_->Check();

  const std::string rootFolder = CRegConfigRootFolder(true).Get();
  g_nfs_log.Info("Trying to create root folder '%1'.", rootFolder);
  if (!HostFolderExists(rootFolder))
    CreateHostFolderChain(rootFolder);

  regConfig_->CreateKeys();
  SRegConfigData catalogue;
  regConfig_->Load(catalogue);

  updateSink_ = boost::make_shared<CRegConfigUpdateSink>(regConfig_);
  itemsTab_ = boost::make_shared<CFsItemsTab>(updateSink_);
  itemsTab_->Expect(catalogue.items.size());
  ResumeShares(catalogue);
  mounter_ = boost::make_shared<CRemoteFsMounter>(catalogue.mounts, itemsTab_, completionEventsAllocator_, logFilter_);
  ResumeRemoteItems(catalogue);
  ClearStaleItems(catalogue);
  healthCheck_ = boost::make_shared<CRemoteFsHealthCheckThread>(mounter_);
}

void CVirtualFs::ResumeShares(const SRegConfigData& catalogue) {
  for (const auto& [uid, cfg] : catalogue.shares) {
    try {
      ResumeShare(uid, cfg, catalogue);
    } catch (const std::exception& failure) {
      g_nfs_log.Error("Failed to resume NFS share [%1].", failure, cfg->nfsFolderName);
    }
  }
}

void CVirtualFs::ResumeShare(const GUID& uid, const boost::shared_ptr<CNfsShareCfg>& cfg,
                             const SRegConfigData& catalogue) {
  std::uint64_t rootFid = InvalidFid;  // Of several the lowest.
  for (const auto& [fid, node] : catalogue.items) {
    if (node.parentFid == InvalidFid && platform::EqualIgnoringCase(node.itemName, cfg->nfsFolderName))
      rootFid = std::min(rootFid, fid);
  }
  MountShare(uid, cfg, rootFid);
  CItemsResumer(*itemsTab_, catalogue.items).ResumeHostFolders(rootFid);
}

void CVirtualFs::ResumeRemoteItems(const SRegConfigData& catalogue) {
  std::set<GUID> uids;
  itemsTab_->GetShareUids(uids);
  CItemsResumer resumer(*itemsTab_, catalogue.items);
  for (const GUID& uid : uids)
    resumer.ResumeNodeChildren(itemsTab_->GetShareFid(uid));
}

void CVirtualFs::MountShare(const GUID& uid, const boost::shared_ptr<CNfsShareCfg>& cfg, std::uint64_t fid) {
  try {
    if (!HostFolderExists(cfg->localPath)) {
      g_nfs_log.Info("Folder [%1] does not exist, creating...", cfg->localPath);
      CreateHostFolderChain(cfg->localPath);
    }
    const auto root = CHostFsFolder::Create(cfg->localPath, invoker_, completionEventsAllocator_, {}, true);
    itemsTab_->RegisterShare(cfg, uid, root, fid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to mount share [%1] ( local path: [%2])", failure, cfg->nfsFolderName, cfg->localPath);
  }
}

void CVirtualFs::ClearItemsCache() {
  SRegConfigData catalogue;
  regConfig_->Load(catalogue);
  ClearStaleItems(catalogue);
}

void CVirtualFs::ClearStaleItems(const SRegConfigData& catalogue) {
  try {
    g_nfs_log.Info("Clearing NFS items registry cache.");
    // Asked before the registry is held: whoever changes the table takes the table's lock first.
    std::vector<std::uint64_t> staleFids;
    for (const auto& node : catalogue.items) {
      if (!itemsTab_->GetItem(node.first))
        staleFids.push_back(node.first);
    }
    std::ranges::sort(staleFids);
    CRegConfigUpdateSink::CBatch batch(*updateSink_);
    for (const std::uint64_t fid : staleFids) {
      g_nfs_log.Info("Item [%1] will be removed from the cache.", fid);
      updateSink_->OnItemDeleted(fid, nullptr);
    }
    batch.Commit();
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to cleanup NFS items registry cache.", failure);
  }
}
