// An entry of the catalogue as it comes back at start.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
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

/// By FID. Without an order: most of the time to bring a large one back would be spent on it.
using resume_items_t = std::unordered_map<std::uint64_t, SNfsNodeResumeInfo>;
