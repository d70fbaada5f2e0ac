// Reading the configuration at start.
#include <algorithm>
#include <boost/make_shared.hpp>
#include <functional>
#include <list>
#include <utility>
#include <vector>

#include "config/reg_config.h"
#include "config/reg_config_nodes.h"
#include "config/reg_config_root_folder.h"
#include "config/reg_keys.h"
#include "config/registry_errors.h"
#include "foundation/log.h"
#include "platform/registry.h"

namespace {

using platform::GuidToText;
using platform::registry_node_t;
using platform::registry_t;

std::vector<registry_node_t> ReadSubKeys(std::string_view key) {
  registry_t& registry = registry_t::Instance();
  ThrowIfFailed(registry.CreateKey(key), "Failed to create registry key [%1].", key);
  std::vector<registry_node_t> nodes;
  ThrowIfFailed(registry.VisitKeys(key, registry_t::visit_order_t::ByName,
                                   [&](const registry_node_t& node) { nodes.push_back(node); }),
                "Failed to open registry key [%1].", key);
  return nodes;
}

/// Reads each node; one that cannot be read is told and costs itself alone.
void ForEach(const std::vector<registry_node_t>& nodes, std::string_view failureText,
             const std::function<void(const registry_node_t&)>& read) {
  for (const registry_node_t& node : nodes) {
    try {
      read(node);
    } catch (const std::exception& failure) {
      g_nfs_log.Warning(failureText, failure, node.name);
    }
  }
}

void LogMount(const GUID& uid, const CBackupMountCfg& cfg) {
  g_nfs_log.Info("   Backup mount point [%1]. VM name: [%2]. Comment: [%2].", GuidToText(uid), cfg.vmName);
  g_nfs_log.Info("        NFS share: [%1]. Mount point: [%2]. Pipe: [%3].", GuidToText(cfg.nfsFolderID), cfg.mountPoint,
                 cfg.pipe);
  g_nfs_log.Info("        Allowed ESX host address: [%1].", cfg.allowedHostAddr);
}

void LinkChildren(resume_items_t& items) {
  for (const auto& [fid, item] : items) {
    const auto parent = items.find(item.parentFid);
    if (parent != items.end())
      parent->second.children.push_back(fid);
  }
  for (auto& [fid, item] : items)
    std::ranges::sort(item.children);
}

}  // namespace

void CRegConfig::Load(SRegConfigData& data) {
  data = SRegConfigData();
  LoadShares(data);
  LoadMounts(data);
  LoadItems(data);
}

void CRegConfig::LoadShares(SRegConfigData& data) {
  try {
    const std::vector<registry_node_t> nodes = ReadSubKeys(regkeys::SharedFolders);
    if (nodes.empty())
      return;
    const std::string localPath = CRegConfigRootFolder(true).Get();
    g_nfs_log.Info("Registered shared folders:");
    ForEach(nodes, "Failed to load folder configuration (registry key: [%1])", [&](const registry_node_t& node) {
      const GUID uid = regconfig::GuidFromKey(node.name);
      const auto cfg = boost::make_shared<CNfsShareCfg>();
      cfg->nfsFolderName = regconfig::ReadShareAlias(node);
      cfg->localPath = localPath;
      g_nfs_log.Info("   NFS share [%1]. NFS mount path: [%2]. Local path: [%3].", GuidToText(uid), cfg->nfsFolderName,
                     cfg->localPath);
      data.shares[uid] = cfg;
    });
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate shared folders registered in configuration.", failure);
  }
}

void CRegConfig::LoadMounts(SRegConfigData& data) {
  try {
    const std::vector<registry_node_t> nodes = ReadSubKeys(regkeys::DynamicMounts);
    if (nodes.empty())
      return;
    g_nfs_log.Info("Registered backup mount points:");
    ForEach(nodes, "Failed to load specification of the backup mount point (registry key: [%1])",
            [&](const registry_node_t& node) {
              const GUID uid = regconfig::GuidFromKey(node.name);
              const auto cfg = boost::make_shared<CBackupMountCfg>(regconfig::ReadMount(node));
              LogMount(uid, *cfg);
              data.mounts[uid] = cfg;
            });
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate shared folders registered in configuration.", failure);
  }
}

void CRegConfig::LoadItems(SRegConfigData& data) {
  try {
    logging::log_scope_t scope(g_nfs_log, "Enumerating NFS items mounted early.");
    // Told afterwards: nobody may turn to the registry during a visit, and a receiver of the log may have to.
    std::list<std::pair<std::string, boost::shared_ptr<exc::exc_base_t>>> failures;
    const platform::error_t opened = registry_t::Instance().VisitKeys(
        regkeys::ItemsCache, registry_t::visit_order_t::AsStored, [&](const registry_node_t& node) {
          try {
            SNfsNodeResumeInfo item = regconfig::ReadItem(node);
            const std::uint64_t fid = item.fid;
            const auto [known, isNew] = data.items.try_emplace(fid, std::move(item));
            // Of two spellings of one number, the one that the service writes is the one that it removes.
            if (!isNew && node.name == std::to_string(fid))
              known->second = std::move(item);
          } catch (const std::exception& failure) {
            failures.emplace_back(node.name, exc::CloneException(failure));
          }
        });
    if (opened == platform::error::FileNotFound) {
      scope.Success("There is no NFS items to restore.");
      return;
    }
    ThrowIfFailed(opened, "Failed to open registry key [%1].", regkeys::ItemsCache);
    for (const auto& [name, failure] : failures) {
      g_nfs_log.Error("Failed to load configuration of the NFS item [%1] from the registry.", *failure, name);
    }
    LinkChildren(data.items);
    scope.Success("Items were enumerated.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to enumerate NFS items mounted early.", failure);
  }
}
