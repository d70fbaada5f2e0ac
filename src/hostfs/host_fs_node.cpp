#include "hostfs/host_fs_node.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <mutex>
#include <new>
#include <vector>

#include "platform/brief_mutex.h"
#include "platform/text.h"

namespace {

/// A load of a set of children at which it needs no more buckets.
constexpr float AnyLoad = 1e6F;

}  // namespace

/// What the nodes of one tree share.
class CHostFsTree {
 public:
  CHostFsTree(const std::string& path, platform::files_t& hostFiles)
      : root(boost::make_shared<platform::root_folder_t>(path)), files(hostFiles) {
    kept_.reserve(MaxLocations);
  }

  const boost::shared_ptr<platform::root_folder_t> root;
  platform::files_t& files;
  std::mutex renames;  // Held from before a rename on the host until the nodes have followed; taken before `lock`.
  platform::brief_mutex_t<std::mutex>
      lock;               // Guards the nodes' links and names, and the rest. Never held over a file operation.
  std::uint64_t age = 1;  // Grows with each rename; a location made before is looked up anew.

  /// The rename under way; no folder for none.
  struct SRename {
    const CHostFsNode* folder = nullptr;
    std::string_view oldName;
    std::string_view newName;
    std::string_view replacedName;
  } rename;

  /// A node between TakeChild and what follows.
  struct SGoing {
    CHostFsNode* node = nullptr;
    CHostFsNode::entry_t entry;  // For PutBack, which cannot fail.
  };
  std::vector<SGoing> going;

  /// The entry of a node that is going no more.
  CHostFsNode::entry_t TakeGoing(const CHostFsNode& node) noexcept {
    CHostFsNode::entry_t entry;
    const auto found = std::find_if(going.begin(), going.end(), [&](const SGoing& one) { return one.node == &node; });
    if (found != going.end()) {
      entry = std::move(found->entry);
      going.erase(found);
    }
    return entry;
  }

  /// Notes that the node keeps its location. The one that has kept its own for longest gives it up, since a location
  /// is larger than all else that a node has, and making it again costs little beside the call that asks for it.
  void KeepLocation(const CHostFsNode& node) {
    if (node.keptAt_ != 0)
      return;
    if (kept_.size() < MaxLocations) {
      kept_.push_back(nullptr);
      next_ = kept_.size() - 1;
    } else {
      next_ = (next_ + 1) % kept_.size();
    }
    if (const CHostFsNode* const oldest = kept_[next_]) {
      oldest->location_.reset();
      oldest->keptAt_ = 0;
    }
    kept_[next_] = &node;
    node.keptAt_ = static_cast<std::uint32_t>(next_ + 1);
    // Those that go with the next ones are far to fetch by then.
    __builtin_prefetch(kept_[(next_ + 2) % kept_.size()], 1);
    if (const CHostFsNode* const next = kept_[(next_ + 1) % kept_.size()])
      __builtin_prefetch(next->location_.get(), 1);
  }
  /// The node keeps its location for itself, or goes.
  void ForgetLocation(const CHostFsNode& node) noexcept {
    if (node.keptAt_ != 0)
      kept_[node.keptAt_ - 1] = nullptr;
    node.keptAt_ = 0;
  }

 private:
  static constexpr std::size_t MaxLocations = 1024;

  std::vector<const CHostFsNode*> kept_;
  std::size_t next_ = 0;
};

std::size_t CHostFsNode::SNameHash::operator()(std::string_view name) const {
  static const std::uint64_t seed = platform::NewHashSeed();
  return platform::HashIgnoringCase(name, seed);
}

CHostFsNodePtr CHostFsNode::CreateRoot(const std::string& path, platform::files_t& files) {
  auto tree = std::make_unique<CHostFsTree>(path, files);
  CHostFsNodePtr root(new CHostFsNode(tree.get(), nullptr, std::string()));
  static_cast<void>(tree.release());  // The root's from here on.
  return root;
}

CHostFsNode::CHostFsNode(CHostFsTree* tree, CHostFsNodePtr parent, std::string name)
    : tree_(tree), parent_(std::move(parent)), name_(std::move(name)) {}

CHostFsNode::~CHostFsNode() {
  const std::lock_guard lock(tree_->lock);
  tree_->ForgetLocation(*this);
  if (!parent_ || !parent_->children_)
    return;
  const auto own = parent_->children_->find(this);
  if (own != parent_->children_->end() && *own == this)
    parent_->children_->erase(own);
}

void CHostFsNode::Release() noexcept {
  if (uses_.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  const std::unique_ptr<CHostFsTree> tree(parent_ ? nullptr : tree_);
  delete this;
}

CHostFsNodePtr CHostFsNode::FindLocked(std::string_view name) const {
  if (!children_)
    return {};
  const auto found = children_->find(name);
  if (found == children_->end())
    return {};
  std::uint32_t uses = (*found)->uses_.load(std::memory_order_relaxed);
  while (uses != 0) {
    if ((*found)->uses_.compare_exchange_weak(uses, uses + 1, std::memory_order_acquire, std::memory_order_relaxed))
      return CHostFsNodePtr(*found, false);
  }
  return {};
}

CHostFsNodePtr CHostFsNode::TakeLocked(std::string_view name, entry_t& entry) noexcept {
  CHostFsNodePtr node = FindLocked(name);
  if (children_) {
    if (const auto found = children_->find(name); found != children_->end())
      entry = children_->extract(found);
  }
  return node;
}

void CHostFsNode::PutLocked(CHostFsNode* child) {
  if (!children_)
    children_ = std::make_unique<children_t>();
  // One of the name that is just going makes room.
  if (const auto old = children_->find(child); old != children_->end())
    children_->erase(old);
  children_->insert(child);
}

void CHostFsNode::PutLocked(entry_t&& entry) noexcept {
  // As above; the set is there, since the entry was in it.
  if (const auto old = children_->find(entry.value()); old != children_->end())
    children_->erase(old);
  // More buckets would take memory, and are made with the next new child.
  const float load = children_->max_load_factor();
  children_->max_load_factor(AnyLoad);
  children_->insert(std::move(entry));
  children_->max_load_factor(load);
}

CHostFsNodePtr CHostFsNode::Child(const std::string& name) {
  // Declared outside the lock: the end of a node takes it.
  CHostFsNodePtr made;
  for (;;) {
    CHostFsNodePtr child;
    {
      const std::lock_guard lock(tree_->lock);
      // What has the name on the host then may be another file than the node's.
      if (!IsBeingRenamedLocked(name)) {
        child = FindLocked(name);
        if (!child && made) {
          PutLocked(made.get());
          child = made;
        }
        if (child)
          return child;
      }
    }
    if (made) {
      LocationAfterRenames();
    } else {
      made = CHostFsNodePtr(new CHostFsNode(tree_, this, name));
    }
  }
}

bool CHostFsNode::IsBeingRenamedLocked(std::string_view childName) const {
  const CHostFsTree::SRename& rename = tree_->rename;
  return rename.folder == this &&
         (childName == rename.oldName || childName == rename.newName || childName == rename.replacedName);
}

bool CHostFsNode::IsGoingLocked() const {
  const CHostFsNode* node = this;
  while (!node->isReplaced_ && node->parent_) {
    node = node->parent_.get();
  }
  return node->isGoing_;
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
    location_ = boost::make_shared<const platform::location_t>(*around, name_);
  }
  locationAge_ = tree_->age;
  tree_->KeepLocation(*this);
  return location_;
}

boost::shared_ptr<const platform::location_t> CHostFsNode::Location() const {
  const std::lock_guard lock(tree_->lock);
  return LocationLocked();
}

boost::shared_ptr<const platform::location_t> CHostFsNode::LocationOr(platform::error_t& absence) const {
  const std::lock_guard lock(tree_->lock);
  boost::shared_ptr<const platform::location_t> present = LocationLocked();
  if (!present) {
    absence = IsGoingLocked() ? platform::error::BeingDeleted : platform::error::FileNotFound;
  }
  return present;
}

boost::shared_ptr<const platform::location_t> CHostFsNode::LocationAfterRenames() const {
  const std::lock_guard<std::mutex> lock(tree_->renames);
  return Location();
}

bool CHostFsNode::IsSettledAt(const platform::location_t& location) const {
  const std::lock_guard lock(tree_->lock);
  const boost::shared_ptr<const platform::location_t> present = LocationLocked();
  if (!present || (present.get() != &location && present->Path() != location.Path())) {
    return false;
  }
  if (tree_->rename.folder == nullptr) {
    return true;
  }
  for (const CHostFsNode* node = this; node->parent_; node = node->parent_.get()) {
    if (node->parent_->IsBeingRenamedLocked(node->name_)) {
      return false;
    }
  }
  return true;
}

std::string CHostFsNode::Path() const {
  const std::lock_guard lock(tree_->lock);
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
  std::string moved = newName;
  const auto tell = [this](const CHostFsTree::SRename& underWay) {
    const std::lock_guard treeLock(tree_->lock);
    tree_->rename = underWay;
  };
  tell({this, oldName, newName, replacedName});
  platform::error_t failure = platform::error::Success;
  try {
    failure = rename();
    if (failure == platform::error::Success) {
      Relink(oldName, moved, replacedName);
    }
  } catch (...) {
    tell({});
    throw;
  }
  tell({});
  return failure;
}

void CHostFsNode::Relink(std::string_view oldName, std::string& newName, std::string_view replacedName) noexcept {
  // Declared outside the lock, as in Child.
  CHostFsNodePtr moved;
  CHostFsNodePtr replaced[2];
  entry_t entry;
  entry_t dropped;
  const std::lock_guard lock(tree_->lock);
  moved = TakeLocked(oldName, entry);
  replaced[0] = TakeLocked(newName, dropped);
  replaced[1] = TakeLocked(replacedName, dropped);
  for (const CHostFsNodePtr& node : replaced) {
    if (node)
      node->ReplaceLocked();
  }
  if (moved) {
    moved->name_.swap(newName);
    PutLocked(std::move(entry));
  }
  ++tree_->age;
}

void CHostFsNode::ReplaceLocked() noexcept {
  try {
    LocationLocked();  // The last one, for texts.
  } catch (const std::bad_alloc&) {
    // They have its name, or an older path.
  }
  tree_->ForgetLocation(*this);
  isReplaced_ = true;
}

CHostFsNodePtr CHostFsNode::TakeChild(const std::string& name) {
  const std::lock_guard lock(tree_->lock);
  tree_->going.reserve(tree_->going.size() + 1);
  entry_t entry;
  CHostFsNodePtr child = TakeLocked(name, entry);
  if (child) {
    child->ReplaceLocked();
    child->isGoing_ = true;
    tree_->going.push_back({child.get(), std::move(entry)});
    if (child->children_)
      ++tree_->age;  // What is below it has no location either.
  }
  return child;
}

void CHostFsNode::ChildIsGone(CHostFsNode& child) noexcept {
  const std::lock_guard lock(tree_->lock);
  tree_->TakeGoing(child);
  child.isGoing_ = false;
}

void CHostFsNode::PutBack(const CHostFsNodePtr& child) noexcept {
  CHostFsNodePtr other;  // Declared outside the lock, as in Child.
  const std::lock_guard lock(tree_->lock);
  entry_t entry = tree_->TakeGoing(*child);
  if (!child->isGoing_)
    return;
  child->isReplaced_ = false;
  child->isGoing_ = false;
  child->locationAge_ = 0;
  other = FindLocked(child->name_);
  if (!other && !entry.empty())
    PutLocked(std::move(entry));
}

void CHostFsNode::ChildIsMade(std::string_view name) {
  const std::lock_guard lock(tree_->lock);
  for (const CHostFsTree::SGoing& one : tree_->going) {
    if (one.node->parent_.get() == this && platform::EqualIgnoringCase(one.node->name_, name))
      one.node->isGoing_ = false;
  }
}
