#include "vfs/virtual_fs/items_resumer.h"

#include <algorithm>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <optional>
#include <vector>

#include "foundation/log.h"
#include "platform/lookup_scope.h"
#include "platform/text.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/operation.h"

namespace {

/// As many as are looked up while a scope is believed.
constexpr std::size_t ChildrenInScope = 256;

bool IsHostFolder(const SFsItemSpec& spec) {
  return spec.isFolder && !spec.isRfsItem;
}

bool IsHostFolder(const SNfsNodeResumeInfo& node) {
  return std::ranges::any_of(node.instances, [](const SFsItemSpec& spec) { return IsHostFolder(spec); });
}

}  // namespace

CItemsResumer::CItemsResumer(CFsItemsTab& itemsTab, const resume_items_t& catalogue)
    : itemsTab_(itemsTab), catalogue_(catalogue) {}

CItemsResumer::nodes_t CItemsResumer::ChildrenByName(const SNfsNodeResumeInfo& parent, wanted_t wanted) const {
  nodes_t nodes;
  nodes.reserve(wanted == wanted_t::All ? parent.children.size() : 0);
  for (const std::uint64_t fid : parent.children) {
    const auto node = catalogue_.find(fid);
    if (node == catalogue_.end() || fid == InvalidFid ||
        (wanted == wanted_t::HostFolders && !IsHostFolder(node->second)))
      continue;
    nodes.push_back({platform::FoldedBegin(node->second.itemName), &node->second});
  }
  // The table's own order: what comes next stands beside what came last, where the processor still has it. Of two with
  // one name the lower FID stays first.
  std::stable_sort(nodes.begin(), nodes.end(), [](const SNamed& left, const SNamed& right) {
    if (left.begin != right.begin)
      return left.begin < right.begin;
    return platform::CompareIgnoringCase(left.node->itemName, right.node->itemName) < 0;
  });
  return nodes;
}

template <typename Resume>
void CItemsResumer::Walk(std::uint64_t rootFid, wanted_t wanted, const Resume& resume) {
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
    for (const auto& [begin, node] : ChildrenByName(parent->second, wanted)) {
      if (count++ % ChildrenInScope == 0) {
        scope.reset();
        scope.emplace();
      }
      try {
        if (resume(parentFid, *node))
          folders.push_back(node->fid);
      } catch (const std::exception& failure) {
        g_nfs_log.Warning("Failed to resume NFS item [%1]. FID: [%2].", failure, node->itemName, node->fid);
      }
    }
  }
}

void CItemsResumer::ResumeHostFolders(std::uint64_t rootFid) {
  Walk(rootFid, wanted_t::HostFolders,
       [this](std::uint64_t parentFid, const SNfsNodeResumeInfo& node) { return ResumeHostFolder(parentFid, node); });
}

void CItemsResumer::ResumeNodeChildren(std::uint64_t rootFid) {
  Walk(rootFid, wanted_t::All,
       [this](std::uint64_t parentFid, const SNfsNodeResumeInfo& node) { return ResumeNode(parentFid, node); });
}

bool CItemsResumer::ResumeHostFolder(std::uint64_t parentFid, const SNfsNodeResumeInfo& node) {
  for (const SFsItemSpec& spec : node.instances) {
    if (!IsHostFolder(spec))
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
