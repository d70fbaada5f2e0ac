// The friendly verbs, over the commands of the service. Each throws what the service or the connection throws, and
// usage_error_t for arguments that cannot be meant.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kelvo-nfsctl/report.h"
#include "kelvo-nfsctl/service.h"

namespace nfsctl {

/// A share in these is its path, as clients mount it, or its ID with or without braces.
SReport CreateShare(IService& service, const std::string& path);
SReport ShowShare(IService& service, const std::string& share);
SReport DeleteShare(IService& service, const std::string& share);
/// The stored shares of this machine's service.
SReport ListShares(const SEndpoint& endpoint);

/// The path is below the share; an empty list of hosts lets every allowed host in.
SReport CreateFolder(IService& service, const std::string& share, const std::string& path, const std::string& hosts);
SReport DeleteFolder(IService& service, const std::string& share, const std::string& path);

SReport AddHosts(IService& service, const std::vector<std::string>& hosts);
SReport RemoveHosts(IService& service, const std::vector<std::string>& hosts);
SReport ListHosts(const SEndpoint& endpoint);

SReport SetSize(IService& service, const std::string& total, const std::string& free);
SReport GetSize(IService& service);
SReport ResetSize(IService& service);

/// What is not given stays as it is stored.
struct SParams {
  std::optional<std::string> rootFolder;
  /// A number, or "none" for no fixed port.
  std::optional<std::string> rpcPort;
  std::optional<std::uint16_t> mountPort;
  std::optional<std::uint16_t> nfsPort;
};
SReport GetParams(IService& service);
SReport SetParams(IService& service, const SParams& params);

struct SMount {
  std::string share;
  std::string path;
  std::string vmName;
  std::string pipe;
  std::string description;
  std::string hosts;
  /// A new one when empty.
  std::string id;
};
SReport PublishMount(IService& service, const SMount& mount);
SReport WithdrawMount(IService& service, const std::string& id);
/// The stored mounts of this machine's service.
SReport ListMounts(const SEndpoint& endpoint);

SReport ListLocks(IService& service);
SReport GetLogFolder(IService& service);
SReport CheckVersion(IService& service, const std::string& version);
SReport Ping(IService& service);

/// Any command as it stands on the wire: "name=value" arguments, or a whole document. The text is the document that
/// came back.
SReport CallCommand(IService& service, const std::string& command, const std::vector<std::string>& arguments,
                    const std::optional<std::string>& document);

}  // namespace nfsctl
