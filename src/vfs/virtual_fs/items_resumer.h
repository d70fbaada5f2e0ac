// Brings the stored catalogue back into the table at start.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <vector>

#include "config/nfs_node_resume_info.h"
#include "vfs/items/fs_item.h"

class CFsItemsTab;

/// Walks the stored nodes below a share's root and gives each object that is still there its stored FID. Nothing is
/// written to the registry, and an item that cannot come back costs itself and what is below it alone. Used by one
/// thread at start; the catalogue and the table outlive it.
class CItemsResumer {
 public:
  CItemsResumer(CFsItemsTab& itemsTab, const resume_items_t& catalogue);

  /// The host's folders below a folder that is in the table.
  void ResumeHostFolders(std::uint64_t rootFid);
  /// All that the backends still have below a folder that is in the table: files and folders of the host, and what
  /// the mounts bring that are back by now.
  void ResumeNodeChildren(std::uint64_t rootFid);

 private:
  bool ResumeHostFolder(std::uint64_t parentFid, const SNfsNodeResumeInfo& node);
  bool ResumeNode(std::uint64_t parentFid, const SNfsNodeResumeInfo& node);
  boost::shared_ptr<IFsItem> FindObject(std::uint64_t fid, const SFsItemSpec& spec) const;
  boost::shared_ptr<IFsItem> OpenInstance(std::uint64_t parentFid, const SNfsNodeResumeInfo& node,
                                          const SFsItemSpec& spec) const;
  bool IsPlaceTaken(std::uint64_t parentFid, const SNfsNodeResumeInfo& node) const;
  enum class wanted_t { All, HostFolders };
  /// Nodes with what their names begin with, which mostly tells their order.
  struct SNamed {
    std::uint64_t begin;
    const SNfsNodeResumeInfo* node;
  };
  using nodes_t = std::vector<SNamed>;
  nodes_t ChildrenByName(const SNfsNodeResumeInfo& parent, wanted_t wanted) const;
  template <typename Resume>
  void Walk(std::uint64_t rootFid, wanted_t wanted, const Resume& resume);

  CFsItemsTab& itemsTab_;
  const resume_items_t& catalogue_;
};
