#include "config/reg_config_nodes.h"

#include <limits>
#include <optional>
#include <variant>

#include "foundation/exc.h"
#include "platform/text.h"

namespace regconfig {
namespace {

using platform::registry_data_t;
using platform::registry_node_t;
using platform::registry_value_t;

/// Null when the value is missing or of another type.
template <typename T>
const T* FindValue(const registry_node_t& node, std::string_view name) {
  for (const registry_value_t& value : node.values) {
    if (platform::EqualIgnoringCase(value.name, name))
      return std::get_if<T>(&value.data);
  }
  return nullptr;
}

template <typename T>
const T& GetRequiredValue(const registry_node_t& node, std::string_view name) {
  const T* const value = FindValue<T>(node, name);
  if (value == nullptr) {
    throw exc::win_sys_exc_t(exc::FormatText("Failed to read registry value [%1].", name),
                             platform::error::FileNotFound);
  }
  return *value;
}

const std::string& GetText(const registry_node_t& node, std::string_view name) {
  return GetRequiredValue<std::string>(node, name);
}

bool GetFlag(const registry_node_t& node, std::string_view name) {
  return GetRequiredValue<std::uint32_t>(node, name) != 0;
}

std::uint64_t FidFromText(std::string_view text) {
  // All bits set means no item at all: nothing is stored under it, though a share's root has it for a parent.
  const std::optional<std::uint64_t> fid = platform::ParseU64(text);
  if (!fid)
    throw exc::runtime_exc_t("Failed to convert string to FID (%1)", text);
  return *fid;
}

SFsItemSpec ReadBacking(const registry_node_t& node) {
  const GUID uid = GuidFromKey(node.name);
  SFsItemSpec spec;
  spec.path = GetText(node, "path");
  spec.isFolder = GetFlag(node, "isFolder");
  spec.isRfsItem = GetFlag(node, "isRfsItem");
  if (!spec.isRfsItem)
    return spec;
  spec.mountUid = uid;
  if (spec.isFolder)
    return spec;
  const std::uint32_t* const low = FindValue<std::uint32_t>(node, "rfsSizeLow");
  const std::uint32_t* const high = FindValue<std::uint32_t>(node, "rfsSizeHigh");
  spec.rfsSize =
      (static_cast<std::uint64_t>(high == nullptr ? 0 : *high) << 32U) | (low == nullptr ? 0 : std::uint64_t{*low});
  return spec;
}

}  // namespace

GUID GuidFromKey(std::string_view name) {
  const std::optional<GUID> guid = platform::GuidFromText(name);
  if (!guid)
    throw exc::runtime_exc_t("Failed to convert string to GUID (%1)", name);
  return *guid;
}

std::string ReadShareAlias(const registry_node_t& node) {
  return GetText(node, "nfsFolderName");
}

CBackupMountCfg ReadMount(const registry_node_t& node) {
  CBackupMountCfg cfg;
  cfg.nfsFolderID = GuidFromKey(GetText(node, "nfsFolderID"));
  cfg.mountPoint = GetText(node, "mountPoint");
  cfg.vmName = GetText(node, "vmName");
  cfg.description = GetText(node, "description");
  cfg.pipe = GetText(node, "pipe");
  cfg.allowedHostAddr = GetText(node, "allowedHostAddr");
  return cfg;
}

SNfsNodeResumeInfo ReadItem(const registry_node_t& node) {
  SNfsNodeResumeInfo item;
  item.fid = FidFromText(node.name);
  if (item.fid == std::numeric_limits<std::uint64_t>::max())
    throw exc::runtime_exc_t("No item can have the FID [%1].", node.name);
  item.itemName = GetText(node, "itemName");
  item.parentFid = FidFromText(GetText(node, "parentItemFID"));
  if (const std::string* const list = FindValue<std::string>(node, "allowedHostAddr"))
    item.allowedHostAddr = *list;
  item.instances.reserve(node.keys.size());
  for (const registry_node_t& key : node.keys) {
    item.instances.push_back(ReadBacking(key));
    item.instances.back().allowedHostAddr = item.allowedHostAddr;
  }
  return item;
}

std::vector<registry_value_t> ShareValues(const std::string& alias) {
  return {{"nfsFolderName", alias}};
}

std::vector<registry_value_t> MountValues(const CBackupMountCfg& cfg) {
  return {{"nfsFolderID", platform::GuidToText(cfg.nfsFolderID)},
          {"mountPoint", cfg.mountPoint},
          {"vmName", cfg.vmName},
          {"description", cfg.description},
          {"pipe", cfg.pipe},
          {"allowedHostAddr", cfg.allowedHostAddr}};
}

std::vector<registry_value_t> PlaceValues(std::uint64_t parentFid, const std::string& name) {
  return {{"itemName", name}, {"parentItemFID", std::to_string(parentFid)}};
}

std::vector<registry_value_t> ItemValues(std::uint64_t parentFid, const std::string& name,
                                         const std::string& allowedHostAddr) {
  return {{"itemName", name}, {"parentItemFID", std::to_string(parentFid)}, {"allowedHostAddr", allowedHostAddr}};
}

std::vector<registry_value_t> BackingValues(const SFsItemSpec& spec) {
  std::vector<registry_value_t> values{
      {"isFolder", std::uint32_t{spec.isFolder}}, {"isRfsItem", std::uint32_t{spec.isRfsItem}}, {"path", spec.path}};
  if (spec.isRfsItem && !spec.isFolder) {
    values.push_back({"rfsSizeLow", static_cast<std::uint32_t>(spec.rfsSize)});
    values.push_back({"rfsSizeHigh", static_cast<std::uint32_t>(spec.rfsSize >> 32U)});
  }
  return values;
}

}  // namespace regconfig
