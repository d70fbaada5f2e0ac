#include "config/reg_config.h"

#include <vector>

#include "config/reg_config_nodes.h"
#include "config/reg_keys.h"
#include "config/registry_errors.h"
#include "foundation/log.h"
#include "platform/registry.h"

namespace {

using platform::GuidToText;
using platform::registry_t;
using platform::registry_transaction_t;

constexpr std::string_view CreateKeyFailed = "Failed to create registry key [%1].";
constexpr std::string_view DeleteKeyFailed = "Failed to delete registry key [%1].";

registry_t& Registry() {
  return registry_t::Instance();
}

std::string Join(std::string_view key, std::string_view name) {
  std::string joined;
  joined.reserve(key.size() + 1 + name.size());
  return joined.append(key).append("\\").append(name);
}

std::string ItemKey(std::uint64_t fid) {
  return Join(regkeys::ItemsCache, std::to_string(fid));
}

void CreateKey(std::string_view key) {
  ThrowIfFailed(Registry().CreateKey(key), CreateKeyFailed, key);
}

void RemoveKeyOf(std::string_view parent, const GUID& uid) {
  const std::string key = Join(parent, GuidToText(uid));
  ThrowUnlessGone(Registry().DeleteKey(key), DeleteKeyFailed, key);
}

}  // namespace

void CRegConfig::Check() {
  ThrowIfFailed(Registry().Check(), "Failed to check the registry.", {});
}

void CRegConfig::CreateKeys() {
  try {
    CreateKey(regkeys::SharedFolders);
    CreateKey(regkeys::DynamicMounts);
    CreateKey(regkeys::ItemsCache);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to create registry keys for the NFS configuration.", failure);
  }
}

void CRegConfig::SaveShare(const GUID& uid, const CNfsShareCfg& cfg) {
  try {
    const std::string key = Join(regkeys::SharedFolders, GuidToText(uid));
    ThrowIfFailed(Registry().SetValues(key, regconfig::ShareValues(cfg.nfsFolderName)), CreateKeyFailed, key);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to register shared folder [%1].", failure, GuidToText(uid));
  }
}

void CRegConfig::SaveMount(const GUID& uid, const CBackupMountCfg& cfg) {
  try {
    const std::string key = Join(regkeys::DynamicMounts, GuidToText(uid));
    ThrowIfFailed(Registry().SetValues(key, regconfig::MountValues(cfg)), CreateKeyFailed, key);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to register backup mount point [%1]. VM name: [%2]. Comment: [%3].", failure,
                       GuidToText(uid), cfg.vmName, cfg.description);
  }
}

void CRegConfig::SaveItem(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                          const SFsItemSpec& spec) {
  try {
    const std::string key = ItemKey(fid);
    registry_transaction_t transaction(Registry());
    ThrowIfFailed(Registry().SetValues(key, regconfig::ItemValues(parentFid, name, spec.allowedHostAddr)),
                  CreateKeyFailed, key);
    const std::string backing = Join(key, GuidToText(spec.isRfsItem ? spec.mountUid : GUID{}));
    ThrowIfFailed(Registry().SetValues(backing, regconfig::BackingValues(spec)),
                  "Failed to create RFS registry key [%1].", backing);
    ThrowIfFailed(transaction.Commit(), CreateKeyFailed, key);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to serialize item. Item name: [%1]. FID: [%2]. Parent FID: [%3].", failure, name, fid,
                       parentFid);
  }
}

void CRegConfig::MoveItem(std::uint64_t fid, std::uint64_t parentFid, const std::string& name) {
  try {
    const std::string key = ItemKey(fid);
    registry_transaction_t transaction(Registry());
    const platform::error_t found = Registry().FindKey(key);
    if (found == platform::error::FileNotFound)
      return;
    ThrowIfFailed(found, "Failed to open registry key [%1].", key);
    ThrowIfFailed(Registry().SetValues(key, regconfig::PlaceValues(parentFid, name)), CreateKeyFailed, key);
    ThrowIfFailed(transaction.Commit(), CreateKeyFailed, key);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to serialize item. Item name: [%1]. FID: [%2]. Parent FID: [%3].", failure, name, fid,
                       parentFid);
  }
}

void CRegConfig::DeleteItem(std::uint64_t fid, const GUID* mountUid) {
  try {
    const std::string key = ItemKey(fid);
    if (mountUid == nullptr) {
      ThrowUnlessGone(Registry().DeleteKey(key), DeleteKeyFailed, key);
      return;
    }
    registry_transaction_t transaction(Registry());
    RemoveKeyOf(key, *mountUid);
    std::vector<std::string> backings;
    const platform::error_t opened = Registry().EnumerateKeys(key, backings);
    if (opened != platform::error::FileNotFound) {
      ThrowIfFailed(opened, "Failed to open item key %1", key);
      if (backings.empty())
        ThrowUnlessGone(Registry().DeleteKey(key), DeleteKeyFailed, key);
    }
    ThrowIfFailed(transaction.Commit(), DeleteKeyFailed, key);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to delete item. Item FID: [%1].", failure, fid);
  }
}

void CRegConfig::RemoveShare(const GUID& uid) {
  g_nfs_log.Info("Clearing registry configuration.");
  try {
    RemoveKeyOf(regkeys::SharedFolders, uid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to remove settings of the NFS folder from the configuration. Folder UID: [%1].", failure,
                       GuidToText(uid));
  }
}

void CRegConfig::RemoveMount(const GUID& uid) {
  try {
    RemoveKeyOf(regkeys::DynamicMounts, uid);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to remove  backup mount point from the configuration. Mount UID: [%1].", failure,
                       GuidToText(uid));
  }
}
