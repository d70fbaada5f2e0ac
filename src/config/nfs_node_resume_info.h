// An entry of the catalogue as it comes back at start.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vfs/items/fs_item.h"

struct SNfsNodeResumeInfo {
  std::uint64_t fid = 0;
  std::uint64_t parentFid = 0;
  std::string itemName;
  std::string allowedHostAddr;          ///< Address list; empty for none.
  std::vector<SFsItemSpec> instances;   ///< One for each backing, in the order of their keys: the host's first.
  std::vector<std::uint64_t> children;  ///< FIDs of the entries whose parent this one is, each once, in order.
};
