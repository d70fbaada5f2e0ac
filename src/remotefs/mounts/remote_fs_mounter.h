// The backup mounts of the service.
#pragma once

#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "config/backup_mount_cfg.h"
#include "platform/guid.h"
#include "remotefs/items/remote_fs_connector.h"

class CCompletionEventsAllocator;
class CFsItemsTab;
class CNfsLogFilter;

/// Shows the contents of backups in folders of shares, takes them away again, and brings their items back after their
/// agent was lost. A mount whose agent is away stays, with all its items, for as long as it takes.
///
/// Any thread. The lock is held for the table of mounts alone; changes of one mount wait for one another.
class CRemoteFsMounter {
 public:
  using mounts_cfg_t = std::map<GUID, boost::shared_ptr<CBackupMountCfg>>;
  using connectors_t = std::map<GUID, boost::shared_ptr<CRemoteFsConnector>>;
  using store_t = std::function<void()>;

  /// Resumes the stored mounts. One whose agent is away is no failure; one whose folder is not there is thrown.
  CRemoteFsMounter(const mounts_cfg_t& mountsCfg, boost::shared_ptr<CFsItemsTab> itemsTab,
                   boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator,
                   boost::shared_ptr<CNfsLogFilter> agentLossReport, const SRemoteFsLimits& limits = {});
  CRemoteFsMounter(const CRemoteFsMounter&) = delete;
  CRemoteFsMounter& operator=(const CRemoteFsMounter&) = delete;
  /// Ends the calls of all mounts; their items stay in the table and fail from here on.
  ~CRemoteFsMounter();

  /// Publishes a mount, in the place of one with the same identity. A failure to reach the agent, to find the folder or
  /// to store its backing changes nothing. store: called once the mount stands, before another change of it begins;
  /// what it throws passes through, and the mount stays.
  void Mount(const GUID& mountUid, const boost::shared_ptr<CBackupMountCfg>& cfg, const store_t& store = {});
  /// Withdraws a mount and its items. An unknown one is no fault. store: as with Mount, also for an unknown one.
  void Dismount(const GUID& mountUid, const store_t& store = {});
  /// The folder on which the mount is published. Every failure is told as "Failed to resolve RFS mount UID to FID.
  /// Mount UID: [%1]." with its cause.
  std::uint64_t ResolveMountRootFid(const GUID& mountUid) const;
  /// The machines of the mounts that are connected, one for each mount.
  void GetActiveConnections(std::list<std::string>& vmNames) const;
  void GetActiveMounts(connectors_t& mounts) const;
  void GetInactiveMounts(connectors_t& mounts) const;
  /// Opens the mount's items below a folder anew, parents first; files that the agent has no more are removed.
  void ReconnectTree(std::uint64_t rootFid, const GUID& mountUid);
  /// Tells the log of a mount that is lost, unless it was told lately.
  void ReportLost(const GUID& mountUid, const CBackupMountCfg& cfg);

 private:
  using mount_t = std::pair<boost::shared_ptr<CBackupMountCfg>, boost::shared_ptr<CRemoteFsConnector>>;
  class CChange;

  void Resume(const mounts_cfg_t& mountsCfg);
  boost::shared_ptr<CRemoteFsConnector> MakeConnector(const boost::shared_ptr<CBackupMountCfg>& cfg) const;
  /// Where the mount is to be seen; throws when there is no such folder.
  std::uint64_t FindMountFolder(const CBackupMountCfg& cfg);
  /// replaced: what the mount showed before and shows no more; empty when it is new. A failure to show the new one
  /// leaves that as it is.
  void Publish(const GUID& mountUid, const mount_t& mount, const mount_t& replaced);
  /// folderFid: where the mount is from now on.
  void Retire(const GUID& mountUid, const mount_t& replaced, std::uint64_t folderFid);
  mount_t FindMount(const GUID& mountUid) const;
  void PutMount(const GUID& mountUid, const mount_t& mount);
  std::uint64_t FindRootFid(const GUID& mountUid) const;
  void Withdraw(const GUID& mountUid, const mount_t& mount);
  /// keptFid: a folder that stays the mount's, without what the mount has in it; InvalidFid for none.
  void RemoveItems(const GUID& mountUid, const CBackupMountCfg& cfg, std::uint64_t keptFid);
  bool ReconnectItem(std::uint64_t fid, const GUID& mountUid);
  void LogReconnected(std::string_view pattern, std::uint64_t fid) const;
  void GetMounts(bool connected, connectors_t& mounts) const;

  const boost::shared_ptr<CFsItemsTab> itemsTab_;
  const boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator_;
  const boost::shared_ptr<CNfsLogFilter> agentLossReport_;
  const SRemoteFsLimits limits_;

  mutable std::mutex lock_;  // Guards all below.
  std::map<GUID, mount_t> mounts_;
  std::set<GUID> changing_;  // Mounts that are being published or withdrawn.
  std::condition_variable changed_;
};
