// The stored shares, mounts and catalogue of items.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>

#include "config/backup_mount_cfg.h"
#include "config/nfs_node_resume_info.h"
#include "config/nfs_share_cfg.h"
#include "platform/guid.h"

struct SRegConfigData {
  std::map<GUID, boost::shared_ptr<CNfsShareCfg>> shares;
  std::map<GUID, boost::shared_ptr<CBackupMountCfg>> mounts;
  resume_items_t items;
};

/// Reads and writes the three tree-shaped parts of the configuration in the process's registry. Without state and
/// without a lock: any thread. Each writing operation is one transaction. Every failure is an exc::exc_base_t whose
/// last text names the operation; reading skips what is damaged, with a line in the log.
class CRegConfig {
 public:
  /// Reads all that the registry holds, whoever wrote it, and fails when a part is damaged: before a start drops what
  /// it does not find there.
  void Check();
  /// Makes the three keys if they are missing.
  void CreateKeys();
  /// Shares, then mounts, then items; what the record held before is dropped.
  void Load(SRegConfigData& data);

  void SaveShare(const GUID& uid, const CNfsShareCfg& cfg);
  void SaveMount(const GUID& uid, const CBackupMountCfg& cfg);
  /// Writes the item and the one backing that the spec tells; its other backings stay.
  void SaveItem(std::uint64_t parentFid, const std::string& name, std::uint64_t fid, const SFsItemSpec& spec);
  /// Writes the item's place alone: parent and name. Its backings and address list stay; an item that is not stored
  /// is no fault and stays so.
  void MoveItem(std::uint64_t fid, std::uint64_t parentFid, const std::string& name);
  /// With a mount: removes its backing, and the item when no other is left. Without: the item with all its backings.
  /// What is not there is no fault.
  void DeleteItem(std::uint64_t fid, const GUID* mountUid);
  void RemoveShare(const GUID& uid);
  void RemoveMount(const GUID& uid);

 private:
  void LoadShares(SRegConfigData& data);
  void LoadMounts(SRegConfigData& data);
  void LoadItems(SRegConfigData& data);
};
