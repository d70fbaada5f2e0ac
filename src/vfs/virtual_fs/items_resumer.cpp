#include "vfs/virtual_fs/items_resumer.h"

#include <boost/smart_ptr/shared_ptr.hpp>
#include <optional>
#include <vector>

#include "config/nfs_node_resume_info.h"
#include "foundation/log.h"
#include "platform/lookup_scope.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/operation.h"

namespace {

/// As many as are looked up while a scope is believed.
constexpr std::size_t ChildrenInScope = 256;

}  // namespace

CItemsResumer::CItemsResumer(CFsItemsTab& itemsTab, const catalogue_t& catalogue)
    : itemsTab_(itemsTab), catalogue_(catalogue) {}

template <typename Resume>
void CItemsResumer::Walk(std::uint64_t rootFid, const Resume& resume) {
  // With a stack of its own, since the registry tells how deep it goes. Every node has one parent, so below a root
  // there is no way round in a circle.
  std::vector<std::uint64_t> folders{rootFid};
  while (!folders.empty()) {
    const std::uint64_t parentFid = folders.back();
    folders.pop_back();
    const auto parent = catalogue_.find(parentFid);
    if (parent == catalogue_.end())
      continue;
    std::optional<platform::lookup_scope_t> scope;  // Most of what is asked of the host is asked of one folder.
    std::size_t count = 0;
    for (const std::uint64_t childFid : parent->second.children) {
      if (count++ % ChildrenInScope == 0) {
        scope.reset();
        scope.emplace();
      }
      const auto node = catalogue_.find(childFid);
      if (node == catalogue_.end() || childFid == InvalidFid)
        continue;
      try {
        if (resume(parentFid, node->second))
          folders.push_back(childFid);
      } catch (const std::exception& failure) {
        g_nfs_log.Warning(
            exc::FormatText("Failed to resume NFS item [%1]. FID: [%2].", node->second.itemName, childFid), failure);
      }
    }
  }
}

void CItemsResumer::ResumeHostFolders(std::uint64_t rootFid) {
  Walk(rootFid,
       [this](std::uint64_t parentFid, const SNfsNodeResumeInfo& node) { return ResumeHostFolder(parentFid, node); });
}

void CItemsResumer::ResumeNodeChildren(std::uint64_t rootFid) {
  Walk(rootFid,
       [this](std::uint64_t parentFid, const SNfsNodeResumeInfo& node) { return ResumeNode(parentFid, node); });
}

bool CItemsResumer::ResumeHostFolder(std::uint64_t parentFid, const SNfsNodeResumeInfo& node) {
  for (const SFsItemSpec& spec : node.instances) {
    if (!spec.isFolder || spec.isRfsItem)
      continue;
    const auto folder = AsFolder(OpenInstance(parentFid, node, spec));
    if (!folder || IsPlaceTaken(parentFid, node))
      return false;
    itemsTab_.ResumeItem(node.fid, parentFid, node.itemName, folder, GUID{});
    return true;
  }
  return false;
}

bool CItemsResumer::ResumeNode(std::uint64_t parentFid, const SNfsNodeResumeInfo& node) {
  bool hasFolder = false;
  for (const SFsItemSpec& spec : node.instances) {
    if (FindObject(node.fid, spec)) {
      hasFolder = hasFolder || spec.isFolder;
      continue;
    }
    const auto child = OpenInstance(parentFid, node, spec);
    if (!child)
      continue;
    if (spec.isRfsItem && spec.isFolder) {
      const auto folder = AsFolder(child);
      if (!folder) {
        g_nfs_log.Error("[Resume node objects] Failed to cast item to folder object. Item NFS path: [%1].",
                        itemsTab_.GetItemPath(node.fid));
        return hasFolder;
      }
      itemsTab_.MountMirroredFolder(node.fid, spec.mountUid, folder);
      hasFolder = true;
    } else {
      if (IsPlaceTaken(parentFid, node))
        return hasFolder;
      itemsTab_.ResumeItem(node.fid, parentFid, node.itemName, child, spec.isRfsItem ? spec.mountUid : GUID{});
      hasFolder = hasFolder || AsFolder(child) != nullptr;
    }
  }
  return hasFolder;
}

boost::shared_ptr<IFsItem> CItemsResumer::FindObject(std::uint64_t fid, const SFsItemSpec& spec) const {
  return spec.isRfsItem ? itemsTab_.GetItemForMount(fid, spec.mountUid) : itemsTab_.GetItem(fid);
}

boost::shared_ptr<IFsItem> CItemsResumer::OpenInstance(std::uint64_t parentFid, const SNfsNodeResumeInfo& node,
                                                       const SFsItemSpec& spec) const {
  if (!IsEntryName(node.itemName) || IsDotName(node.itemName))
    return {};
  const auto parent = AsFolder(FindObject(parentFid, spec));
  if (!parent)
    return {};
  SFsItemSpec stored = spec;
  stored.allowedHostAddr = node.allowedHostAddr;
  return parent->ResumeChild(node.itemName, stored);
}

bool CItemsResumer::IsPlaceTaken(std::uint64_t parentFid, const SNfsNodeResumeInfo& node) const {
  const std::uint64_t there = itemsTab_.LookupChild(parentFid, node.itemName);
  if (there == InvalidFid || there == node.fid)
    return false;
  g_nfs_log.Warning("NFS item [%1] is stored twice. FIDs: [%2], [%3].", node.itemName, there, node.fid);
  return true;
}
