#include "kelvo-nfsctl/commands.h"

#include <algorithm>
#include <map>

#include "kelvo-nfsctl/local_settings.h"
#include "kelvo-nfsctl/sizes.h"
#include "kelvo-nfsctl/usage_error.h"
#include "platform/guid.h"
#include "platform/text.h"

namespace nfsctl {
namespace {

/// What stands for no fixed port in an argument.
constexpr const char* NoPort = "4294967295";

std::optional<GUID> GuidOf(const std::string& text) {
  const auto guid = platform::GuidFromText(text);
  return guid ? guid : platform::GuidFromText("{" + text + "}");
}

std::string ShareId(IService& service, const std::string& share) {
  if (const auto guid = GuidOf(share))
    return platform::GuidToText(*guid);
  return service.Call("LookupShare", {{"mountPoint", share}}).Text("shareId");
}

std::string MountId(const std::string& text) {
  const auto guid = GuidOf(text);
  if (!guid)
    throw usage_error_t("[" + text + "] is no ID of a mount; write it as {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}.");
  return platform::GuidToText(*guid);
}

SReport Lines(std::string text, nlohmann::ordered_json json = nlohmann::ordered_json::object()) {
  return {std::move(text), std::move(json)};
}

std::string Join(const std::vector<std::string>& items, const char* separator) {
  std::string text;
  for (const std::string& item : items)
    text += (text.empty() ? "" : separator) + item;
  return text;
}

/// The port of a result; nothing where none is fixed.
std::optional<std::uint64_t> PortOf(const COutput& output, const char* name) {
  const std::string& text = output.Text(name);
  if (text == "-1" || text == NoPort)
    return std::nullopt;
  return output.Number(name);
}

nlohmann::ordered_json PortJson(const std::optional<std::uint64_t>& port) {
  return port ? nlohmann::ordered_json(*port) : nlohmann::ordered_json(nullptr);
}

std::string PortArgument(const std::optional<std::uint64_t>& port) {
  return port ? std::to_string(*port) : std::string(NoPort);
}

std::string PortArgument(const std::string& text) {
  if (text == "none")
    return NoPort;
  const auto port = platform::ParseU32(text);
  if (!port || *port > 65535)
    throw usage_error_t("[" + text + "] is no port; write a number up to 65535, or none for no fixed port.");
  return text;
}

std::string PortText(const std::optional<std::uint64_t>& port) {
  return port ? std::to_string(*port) : std::string("none is fixed");
}

}  // namespace

SReport CreateShare(IService& service, const std::string& path) {
  const std::string id = service.Call("CreateShare", {{"nfsFolderPath", path}}).Text("shareId");
  return Lines("Created share " + path + " with the ID " + id + ".\n", {{"shareId", id}});
}

SReport ShowShare(IService& service, const std::string& share) {
  const std::string id = ShareId(service, share);
  const std::string path = service.Call("GetShareConfig", {{"shareId", id}}).Text("nfsFolderPath");
  return {FormatTable({{"ID", "PATH"}, {id, path}}), {{"shareId", id}, {"nfsFolderPath", path}}};
}

SReport DeleteShare(IService& service, const std::string& share) {
  const std::string id = ShareId(service, share);
  service.Call("DeleteShare", {{"shareId", id}});
  return Lines("Deleted share " + share + ". Its files stay where they are.\n", {{"shareId", id}});
}

SReport ListShares(const SEndpoint& endpoint) {
  std::vector<std::vector<std::string>> rows{{"ID", "PATH"}};
  auto json = nlohmann::ordered_json::array();
  for (const auto& [id, path] : ReadShares(endpoint)) {
    rows.push_back({id, path});
    json.push_back({{"shareId", id}, {"nfsFolderPath", path}});
  }
  return {rows.size() > 1 ? FormatTable(rows) : "There are no shares.\n", {{"shares", json}}};
}

SReport CreateFolder(IService& service, const std::string& share, const std::string& path, const std::string& hosts) {
  arguments_t arguments{{"shareId", ShareId(service, share)}, {"nfsRelativePath", path}};
  if (!hosts.empty())
    arguments.emplace_back("allowedHostAddr", hosts);
  const std::string hostPath = service.Call("CreateFolder", arguments).Text("hostFsPath");
  return Lines("Created folder " + path + " in share " + share + ". It lies at " + hostPath + ".\n",
               {{"hostFsPath", hostPath}});
}

SReport DeleteFolder(IService& service, const std::string& share, const std::string& path) {
  service.Call("DeleteFolder", {{"shareId", ShareId(service, share)}, {"nfsRelativePath", path}});
  return Lines("Deleted folder " + path + " from share " + share + " with everything in it.\n");
}

SReport AddHosts(IService& service, const std::vector<std::string>& hosts) {
  service.Call("AddEsxHostAddr", {{"allowedHostAddr", Join(hosts, ";")}});
  return Lines("Connections are allowed from " + Join(hosts, ", ") + ".\n", {{"added", hosts}});
}

SReport RemoveHosts(IService& service, const std::vector<std::string>& hosts) {
  service.Call("DeleteEsxHostAddr", {{"allowedHostAddr", Join(hosts, ";")}});
  return Lines("Took " + Join(hosts, ", ") +
                   " off the list. A host that was allowed before may connect until the service restarts.\n",
               {{"removed", hosts}});
}

SReport ListHosts(const SEndpoint& endpoint) {
  const std::vector<std::string> hosts = ReadAllowedHosts(endpoint);
  std::string text;
  for (const std::string& host : hosts)
    text += host + "\n";
  return {hosts.empty() ? "No hosts are on the list.\n" : text, {{"hosts", hosts}}};
}

SReport SetSize(IService& service, const std::string& total, const std::string& free) {
  const std::uint64_t totalBytes = ParseSize(total);
  const std::uint64_t freeBytes = ParseSize(free);
  service.Call("SetNfsDatastoreSize",
               {{"nfsTotalSpace", std::to_string(totalBytes)}, {"nfsFreeSpace", std::to_string(freeBytes)}});
  return Lines("Hosts are told " + FormatSize(totalBytes) + ", of which " + FormatSize(freeBytes) +
                   " are free, until the size is reset or the service restarts.\n",
               {{"nfsTotalSpace", totalBytes}, {"nfsFreeSpace", freeBytes}, {"nfsCustomSize", true}});
}

SReport GetSize(IService& service) {
  const COutput output = service.Call("GetNfsDatastoreSize", arguments_t());
  const std::uint64_t total = output.Number("nfsTotalSpace");
  const std::uint64_t free = output.Number("nfsFreeSpace");
  const bool isCustom = output.Flag("nfsCustomSize");
  std::string text = isCustom ? "Hosts are told this size:\n" : "Hosts are told the size of the disk.\n";
  if (isCustom)
    text += FormatTable({{"Total", FormatSize(total)}, {"Free", FormatSize(free)}});
  return {text, {{"nfsTotalSpace", total}, {"nfsFreeSpace", free}, {"nfsCustomSize", isCustom}}};
}

SReport ResetSize(IService& service) {
  service.Call("ResetNfsDatastoreSize", arguments_t());
  return Lines("Hosts are told the size of the disk.\n");
}

SReport GetParams(IService& service) {
  const COutput output = service.Call("GetParams", arguments_t());
  const std::string& root = output.Text("rootFolder");
  const auto rpcPort = PortOf(output, "rpcPort");
  const auto mountPort = PortOf(output, "mountPort");
  const auto nfsPort = PortOf(output, "nfsPort");
  return {FormatTable({{"Root folder", root},
                       {"Management port", PortText(rpcPort)},
                       {"MOUNT port", PortText(mountPort)},
                       {"NFS port", PortText(nfsPort)}}),
          {{"rootFolder", root},
           {"rpcPort", PortJson(rpcPort)},
           {"mountPort", PortJson(mountPort)},
           {"nfsPort", PortJson(nfsPort)}}};
}

SReport SetParams(IService& service, const SParams& params) {
  if (!params.rootFolder && !params.rpcPort && !params.mountPort && !params.nfsPort)
    throw usage_error_t("Nothing is to be changed; name at least one setting, as --nfs-port 2049.");
  const std::optional<std::string> rpcPort =
      params.rpcPort ? std::optional(PortArgument(*params.rpcPort)) : std::nullopt;
  const COutput stored = service.Call("GetParams", arguments_t());
  const auto portOr = [&stored](const std::optional<std::uint16_t>& port, const char* name) {
    return port ? std::to_string(*port) : PortArgument(PortOf(stored, name));
  };
  service.Call("Reconfigure", {{"rootFolder", params.rootFolder.value_or(stored.Text("rootFolder"))},
                               {"rpcPort", rpcPort.value_or(PortArgument(PortOf(stored, "rpcPort")))},
                               {"mountPort", portOr(params.mountPort, "mountPort")},
                               {"nfsPort", portOr(params.nfsPort, "nfsPort")}});
  return Lines(
      "The settings are stored, and hold when the service is restarted. Until then it serves as before, and "
      "shares and mounts cannot be changed.\n",
      {{"restartNeeded", true}});
}

SReport PublishMount(IService& service, const SMount& mount) {
  const std::string id = mount.id.empty() ? platform::GuidToText(platform::NewGuid()) : MountId(mount.id);
  arguments_t arguments{
      {"mountId", id},          {"shareId", ShareId(service, mount.share)}, {"nfsRelativePath", mount.path},
      {"vmName", mount.vmName}, {"description", mount.description},         {"pipeName", mount.pipe}};
  if (!mount.hosts.empty())
    arguments.emplace_back("allowedHostAddr", mount.hosts);
  service.Call("MountBackup", arguments);
  return Lines(
      "Published " + mount.vmName + " at " + mount.path + " in share " + mount.share + " with the ID " + id + ".\n",
      {{"mountId", id}});
}

SReport WithdrawMount(IService& service, const std::string& id) {
  const std::string mountId = MountId(id);
  service.Call("DismountBackup", {{"mountId", mountId}});
  return Lines("Withdrew mount " + mountId + ".\n", {{"mountId", mountId}});
}

SReport ListMounts(const SEndpoint& endpoint) {
  std::map<std::string, std::string> sharePaths;
  for (const auto& [id, path] : ReadShares(endpoint))
    sharePaths.emplace(id, path);
  std::vector<std::vector<std::string>> rows{{"ID", "MACHINE", "SHARE", "PATH", "PIPE"}};
  auto json = nlohmann::ordered_json::array();
  for (const SStoredMount& mount : ReadMounts(endpoint)) {
    const auto share = sharePaths.find(mount.shareId);
    rows.push_back(
        {mount.id, mount.vmName, share == sharePaths.end() ? mount.shareId : share->second, mount.path, mount.pipe});
    json.push_back({{"mountId", mount.id},
                    {"vmName", mount.vmName},
                    {"shareId", mount.shareId},
                    {"nfsRelativePath", mount.path},
                    {"pipeName", mount.pipe}});
  }
  return {rows.size() > 1 ? FormatTable(rows) : "There are no mounts.\n", {{"mounts", json}}};
}

SReport ListLocks(IService& service) {
  const COutput output = service.Call("EnumLocks", arguments_t());
  std::vector<std::vector<std::string>> rows{{"MACHINE", "JOB"}};
  auto json = nlohmann::ordered_json::array();
  for (const arguments_t& item : output.Items("locks")) {
    const auto attribute = [&item](std::string_view name) {
      const auto found =
          std::find_if(item.begin(), item.end(), [name](const auto& entry) { return entry.first == name; });
      return found == item.end() ? std::string() : found->second;
    };
    rows.push_back({attribute("BackupConsole"), attribute("JobName")});
    json.push_back({{"BackupConsole", rows.back()[0]}, {"JobName", rows.back()[1]}});
  }
  return {rows.size() > 1 ? FormatTable(rows) : "Nothing is in use.\n", {{"locks", json}}};
}

SReport GetLogFolder(IService& service) {
  const std::string folder = service.Call("GetLogFolder", arguments_t()).Text("LogFolder");
  return {folder + "\n", {{"LogFolder", folder}}};
}

SReport CheckVersion(IService& service, const std::string& version) {
  const bool isCompatible = service.Call("TestCompatible", {{"backupConsoleVersion", version}}).Flag("isCompatible");
  return {std::string("A console of version ") + version + (isCompatible ? " is" : " is not") +
              " compatible with the service.\n",
          {{"isCompatible", isCompatible}}};
}

SReport Ping(IService& service) {
  service.Ping();
  return {"The service answers.\n", {{"answers", true}}};
}

SReport CallCommand(IService& service, const std::string& command, const std::vector<std::string>& arguments,
                    const std::optional<std::string>& document) {
  if (document && !arguments.empty())
    throw usage_error_t("Arguments and --xml cannot be sent together.");
  arguments_t pairs;
  for (const std::string& argument : arguments) {
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    if (equals == std::string::npos || !IsArgumentName(name))
      throw usage_error_t("[" + argument + "] is no argument; write name=value.");
    pairs.emplace_back(name, argument.substr(equals + 1));
  }
  const std::string output = service.Call(command, document ? *document : MakeInput(pairs));
  return {output + "\n", COutput(output).ToJson()};
}

}  // namespace nfsctl
