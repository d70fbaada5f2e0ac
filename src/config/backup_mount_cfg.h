// A backup mount as it is configured.
#pragma once

#include <string>

#include "platform/guid.h"

struct CBackupMountCfg {
  GUID nfsFolderID;             ///< The share in which the mount is published.
  std::string mountPoint;       ///< Folder path under the share's root.
  std::string vmName;           ///< Name of the machine.
  std::string description;      ///< Free comment.
  std::string pipe;             ///< Base name of the mount's pipes.
  std::string allowedHostAddr;  ///< Address list of the host that may use the mount.

  bool operator==(const CBackupMountCfg&) const = default;
};
