// Stored shares, mounts and items as records, and back.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/backup_mount_cfg.h"
#include "config/nfs_node_resume_info.h"
#include "platform/guid.h"
#include "platform/registry.h"

/// Reading throws exc::exc_base_t for what is missing, of another type or no number or GUID.
namespace regconfig {

GUID GuidFromKey(std::string_view name);

std::string ReadShareAlias(const platform::registry_node_t& node);
CBackupMountCfg ReadMount(const platform::registry_node_t& node);
/// Without children.
SNfsNodeResumeInfo ReadItem(const platform::registry_node_t& node);

std::vector<platform::registry_value_t> ShareValues(const std::string& alias);
std::vector<platform::registry_value_t> MountValues(const CBackupMountCfg& cfg);
std::vector<platform::registry_value_t> PlaceValues(std::uint64_t parentFid, const std::string& name);
std::vector<platform::registry_value_t> ItemValues(std::uint64_t parentFid, const std::string& name,
                                                   const std::string& allowedHostAddr);
std::vector<platform::registry_value_t> BackingValues(const SFsItemSpec& spec);

}  // namespace regconfig
