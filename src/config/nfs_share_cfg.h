// A share as it is configured.
#pragma once

#include <string>

struct CNfsShareCfg {
  std::string localPath;      ///< Host folder. Not stored: the root folder, expanded when the shares are loaded.
  std::string nfsFolderName;  ///< The alias that clients mount.

  bool operator==(const CNfsShareCfg&) const = default;
};
