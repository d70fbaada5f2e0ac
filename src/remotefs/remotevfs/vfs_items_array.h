// A listing of a mount agent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "remotefs/remotevfs/reply_reader.h"

namespace remotevfs {

/// One item of a listing. Its kind and size are the agent's own; nothing here interprets them.
struct VfsItem {
  std::uint32_t kind = 0;
  std::uint64_t size = 0;
  std::string name;

  bool operator==(const VfsItem&) const = default;
};

/// The items in the order in which the agent told them. One thread at a time.
class VfsItemsArray {
 public:
  /// Reads a count and so many items. The count sizes nothing. An item whose name cannot be that of a file is left out
  /// with a warning; a listing that ends early throws "Invalid data stream".
  static VfsItemsArray Parse(ReplyReader& reader);

  void Append(VfsItem item) { items_.push_back(std::move(item)); }
  std::size_t Size() const { return items_.size(); }
  const VfsItem& operator[](std::size_t index) const { return items_[index]; }
  const std::vector<VfsItem>& Items() const { return items_; }

 private:
  std::vector<VfsItem> items_;
};

}  // namespace remotevfs
