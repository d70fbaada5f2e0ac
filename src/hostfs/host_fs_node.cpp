#include "hostfs/host_fs_node.h"

#include <boost/make_shared.hpp>
#include <mutex>

/// What the nodes of one tree share.
class CHostFsTree {
 public:
  CHostFsTree(const std::string& path, platform::files_t& hostFiles)
      : root(boost::make_shared<platform::root_folder_t>(path)), files(hostFiles) {}

  const boost::shared_ptr<platform::root_folder_t> root;
  platform::files_t& files;
  std::mutex renames;     // Held from before a rename on the host until the nodes have followed; taken before `lock`.
  std::mutex lock;        // Guards the nodes' links and names, and `age`. Never held over a file operation.
  std::uint64_t age = 1;  // Grows with each rename; a location made before is looked up anew.
};

boost::shared_ptr<CHostFsNode> CHostFsNode::CreateRoot(const std::string& path, platform::files_t& files) {
  const auto tree = boost::make_shared<CHostFsTree>(path, files);
  return boost::shared_ptr<CHostFsNode>(new CHostFsNode(tree, nullptr, std::string()));
}

CHostFsNode::CHostFsNode(boost::shared_ptr<CHostFsTree> tree, boost::shared_ptr<CHostFsNode> parent, std::string name)
    : tree_(std::move(tree)), parent_(std::move(parent)), name_(std::move(name)) {}

CHostFsNode::~CHostFsNode() {
  if (!parent_) {
    return;
  }
  const std::lock_guard<std::mutex> lock(tree_->lock);
  const auto own = parent_->children_.find(name_);
  if (own != parent_->children_.end() && own->second.expired()) {
    parent_->children_.erase(own);
  }
}

boost::shared_ptr<CHostFsNode> CHostFsNode::Child(const std::string& name) {
  // Declared outside the lock: the end of a node takes it.
  boost::shared_ptr<CHostFsNode> child;
  {
    const std::lock_guard<std::mutex> lock(tree_->lock);
    const auto found = children_.find(name);
    if (found != children_.end()) {
      child = found->second.lock();
    }
  }
  if (child) {
    return child;
  }
  const boost::shared_ptr<CHostFsNode> made(new CHostFsNode(tree_, shared_from_this(), name));
  const std::lock_guard<std::mutex> lock(tree_->lock);
  boost::weak_ptr<CHostFsNode>& place = children_[name];
  child = place.lock();
  if (!child) {
    place = made;
    child = made;
  }
  return child;
}

boost::shared_ptr<const platform::location_t> CHostFsNode::LocationLocked() const {
  if (isReplaced_) {
    return nullptr;
  }
  if (location_ && locationAge_ == tree_->age) {
    return location_;
  }
  if (!parent_) {
    location_ = boost::make_shared<const platform::location_t>(tree_->root);
  } else {
    const boost::shared_ptr<const platform::location_t> around = parent_->LocationLocked();
    if (!around) {
      return nullptr;
    }
    location_ = boost::make_shared<const platform::location_t>(around->Child(name_));
  }
  locationAge_ = tree_->age;
  return location_;
}

boost::shared_ptr<const platform::location_t> CHostFsNode::Location() const {
  const std::lock_guard<std::mutex> lock(tree_->lock);
  return LocationLocked();
}

boost::shared_ptr<const platform::location_t> CHostFsNode::LocationAfterRenames() const {
  const std::lock_guard<std::mutex> lock(tree_->renames);
  return Location();
}

std::string CHostFsNode::Path() const {
  const std::lock_guard<std::mutex> lock(tree_->lock);
  const boost::shared_ptr<const platform::location_t> present = LocationLocked();
  if (present) {
    return present->Path();
  }
  return location_ ? location_->Path() : name_;
}

platform::files_t& CHostFsNode::Files() const {
  return tree_->files;
}

platform::error_t CHostFsNode::RenameChild(const std::string& oldName, const std::string& newName,
                                           const std::string& replacedName,
                                           const std::function<platform::error_t()>& rename) {
  const std::lock_guard<std::mutex> lock(tree_->renames);
  const platform::error_t failure = rename();
  if (failure == platform::error::Success) {
    Relink(oldName, newName, replacedName);
  }
  return failure;
}

void CHostFsNode::Relink(const std::string& oldName, const std::string& newName, const std::string& replacedName) {
  boost::shared_ptr<CHostFsNode> moved;
  boost::shared_ptr<CHostFsNode> replaced[2];
  const std::lock_guard<std::mutex> lock(tree_->lock);
  const auto take = [this](const std::string& name) {
    boost::shared_ptr<CHostFsNode> node;
    if (const auto found = children_.find(name); found != children_.end()) {
      node = found->second.lock();
      children_.erase(found);
    }
    return node;
  };
  moved = take(oldName);
  replaced[0] = take(newName);
  replaced[1] = take(replacedName);
  for (const boost::shared_ptr<CHostFsNode>& node : replaced) {
    if (node) {
      node->LocationLocked();  // The last one, for texts.
      node->isReplaced_ = true;
    }
  }
  if (moved) {
    moved->name_ = newName;
    children_[newName] = moved;
  }
  ++tree_->age;
}
