// What the service keeps and has no command for: read where it is stored, on the machine of the service.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kelvo-nfsctl/endpoint.h"

namespace nfsctl {

/// The addresses that may connect, as they are stored. Throws exc::exc_base_t for an endpoint that is not of this
/// machine, and when the registry cannot be read.
std::vector<std::string> ReadAllowedHosts(const SEndpoint& endpoint);

/// ID and path of every share that is stored. Throws as ReadAllowedHosts does.
std::vector<std::pair<std::string, std::string>> ReadShares(const SEndpoint& endpoint);

struct SStoredMount {
  std::string id;
  std::string shareId;
  std::string path;  ///< Below the share.
  std::string vmName;
  std::string pipe;
};

/// Every backup mount that is stored, whether its agent runs or not. Throws as ReadAllowedHosts does.
std::vector<SStoredMount> ReadMounts(const SEndpoint& endpoint);

}  // namespace nfsctl
