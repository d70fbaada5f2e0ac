#include "kelvo-nfsctl/local_settings.h"

#include <string_view>
#include <variant>

#include "config/reg_keys.h"
#include "foundation/exc.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace nfsctl {
namespace {

using platform::error_t;
using platform::registry_t;

void CheckIsLocal(const SEndpoint& endpoint, const char* what) {
  if (!endpoint.IsLocal()) {
    throw exc::runtime_exc_t(
        "The service has no command that lists its %1: run this command on the machine of the"
        " service, where they are read from its stored settings.",
        what);
  }
}

/// Nothing stored is no failure.
bool IsStored(error_t error) {
  if (error != platform::error::Success && error != platform::error::FileNotFound)
    throw exc::win_sys_exc_t("Failed to read the stored settings of the service.", error);
  return error == platform::error::Success;
}

/// The text of a value; empty when there is none.
std::string TextOf(const platform::registry_node_t& node, std::string_view name) {
  for (const platform::registry_value_t& value : node.values) {
    const auto* const text = std::get_if<std::string>(&value.data);
    if (text != nullptr && platform::EqualIgnoringCase(value.name, name))
      return *text;
  }
  return {};
}

}  // namespace

std::vector<std::string> ReadAllowedHosts(const SEndpoint& endpoint) {
  CheckIsLocal(endpoint, "hosts");
  std::vector<std::string> hosts;
  std::string list;
  if (!IsStored(registry_t::Instance().GetText(regkeys::Root, "AllowedAddresses", list)))
    return hosts;
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find(';', start), list.size());
    if (end > start)
      hosts.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  return hosts;
}

std::vector<std::pair<std::string, std::string>> ReadShares(const SEndpoint& endpoint) {
  CheckIsLocal(endpoint, "shares");
  std::vector<std::pair<std::string, std::string>> shares;
  platform::registry_node_t folder;
  if (!IsStored(registry_t::Instance().ReadTree(regkeys::SharedFolders, folder)))
    return shares;
  for (const platform::registry_node_t& share : folder.keys) {
    std::string path = TextOf(share, "nfsFolderName");
    if (!path.empty())
      shares.emplace_back(share.name, std::move(path));
  }
  return shares;
}

std::vector<SStoredMount> ReadMounts(const SEndpoint& endpoint) {
  CheckIsLocal(endpoint, "mounts");
  std::vector<SStoredMount> mounts;
  platform::registry_node_t folder;
  if (!IsStored(registry_t::Instance().ReadTree(regkeys::DynamicMounts, folder)))
    return mounts;
  for (const platform::registry_node_t& mount : folder.keys) {
    mounts.push_back({mount.name, TextOf(mount, "nfsFolderID"), TextOf(mount, "mountPoint"), TextOf(mount, "vmName"),
                      TextOf(mount, "pipe")});
  }
  return mounts;
}

}  // namespace nfsctl
