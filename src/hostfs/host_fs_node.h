// Where a host item is: its place in the tree of names, which renames move.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <utility>

#include "platform/files.h"

class CHostFsNode;
class CHostFsTree;

using CHostFsNodePtr = boost::intrusive_ptr<CHostFsNode>;

/// One name below a share's root, shared by all items that stand for it and by all items below it. An item asks for
/// its location at each call, so after a rename it answers at its new place, and so does everything below a folder
/// that was renamed; nobody has to tell them. There is one for each item of the catalogue, so it is kept small: counted
/// inside, with nothing in it that only folders need. Any thread.
class CHostFsNode {
 public:
  /// The root of a new tree.
  static CHostFsNodePtr CreateRoot(const std::string& path, platform::files_t& files);
  CHostFsNode(const CHostFsNode&) = delete;
  CHostFsNode& operator=(const CHostFsNode&) = delete;

  /// The node of a name, as the host spells it, in this folder. Two calls give one node while anyone holds it. While
  /// the name is just being renamed, or something else to it, that is waited for.
  CHostFsNodePtr Child(const std::string& name);
  /// Where it is now; null when a rename has put something else in its place.
  boost::shared_ptr<const platform::location_t> Location() const;
  /// The path for texts: the present one, or the last one of a node that was replaced.
  std::string Path() const;
  platform::files_t& Files() const;

  /// Runs `call` with the location (a shared pointer), again when it found nothing there (2, 3) while something in the
  /// tree was renamed. Gives 2 for a node that was replaced, and 10008 while it or a folder around it is being deleted:
  /// it may yet stay.
  template <typename Call>
  platform::error_t AtLocation(const Call& call) const {
    platform::error_t absence = platform::error::Success;
    boost::shared_ptr<const platform::location_t> location = LocationOr(absence);
    while (location) {
      const platform::error_t failure = call(location);
      if (failure != platform::error::FileNotFound && failure != platform::error::PathNotFound) {
        return failure;
      }
      boost::shared_ptr<const platform::location_t> present = LocationAfterRenames();
      if (!present || present == location) {
        return failure;
      }
      location = std::move(present);
    }
    return absence;
  }

  /// As AtLocation, and again when it succeeded while the node was moved, replaced or deleted: for calls that open or
  /// look at what is there, which then might have met something else. `call` may succeed several times.
  template <typename Call>
  platform::error_t AtSettledLocation(const Call& call) const {
    boost::shared_ptr<const platform::location_t> location;
    for (;;) {
      const platform::error_t failure = AtLocation([&](const boost::shared_ptr<const platform::location_t>& where) {
        location = where;
        return call(where);
      });
      if (failure != platform::error::Success || IsSettledAt(*location)) {
        return failure;
      }
      // A rename that is under way comes to its end first.
      LocationAfterRenames();
    }
  }

  /// Renames an entry on the host by `rename`, which gives an error number, and on success moves the nodes along.
  /// Names are as the host spells them: before, after, and of what is replaced (empty for nothing; its node then has
  /// no location any more). `rename` must ask nodes of this tree neither for children
  /// nor by AtLocation or AtSettledLocation.
  platform::error_t RenameChild(const std::string& oldName, const std::string& newName, const std::string& replacedName,
                                const std::function<platform::error_t()>& rename);

  /// To be called before an entry is deleted, by its name as the host spells it: its node has no location any more, and
  /// what comes to stand there has another. Gives the node; empty for none.
  CHostFsNodePtr TakeChild(const std::string& name);
  /// One of the two follows. The entry was deleted. child: what TakeChild gave.
  void ChildIsGone(CHostFsNode& child) noexcept;
  /// The entry could not be deleted. child: what TakeChild gave.
  void PutBack(const CHostFsNodePtr& child) noexcept;
  /// To be called when something was made in this folder under a name that nothing had in any case: what was just being
  /// deleted there is gone, whoever did it, before that is told to be over.
  void ChildIsMade(std::string_view name);

 private:
  friend class CHostFsTree;
  friend void intrusive_ptr_add_ref(CHostFsNode* node) noexcept { node->uses_.fetch_add(1, std::memory_order_relaxed); }
  friend void intrusive_ptr_release(CHostFsNode* node) noexcept { node->Release(); }

  struct SNameHash {
    using is_transparent = void;
    // Clients choose names; that they cannot choose such as meet is the work of the process's own seed.
    std::size_t operator()(std::string_view name) const;
    // Not noexcept, so that hashes are kept: a node is far to fetch.
    std::size_t operator()(const CHostFsNode* node) const { return (*this)(std::string_view(node->name_)); }
  };
  static_assert(!std::is_nothrow_invocable_v<const SNameHash&, CHostFsNode* const&>);
  struct SNameEqual {
    using is_transparent = void;
    static std::string_view Name(std::string_view name) noexcept { return name; }
    static std::string_view Name(const CHostFsNode* node) noexcept { return node->name_; }
    template <typename Left, typename Right>
    bool operator()(const Left& left, const Right& right) const noexcept {
      return Name(left) == Name(right);
    }
  };
  using children_t = std::unordered_set<CHostFsNode*, SNameHash, SNameEqual>;
  using entry_t = children_t::node_type;

  CHostFsNode(CHostFsTree* tree, CHostFsNodePtr parent, std::string name);
  ~CHostFsNode();
  void Release() noexcept;
  /// Empty for none, and for one that is just going.
  CHostFsNodePtr FindLocked(std::string_view name) const;
  /// entry: what it had among the children, with which it can be put back.
  CHostFsNodePtr TakeLocked(std::string_view name, entry_t& entry) noexcept;
  void PutLocked(CHostFsNode* child);
  /// Takes no memory.
  void PutLocked(entry_t&& entry) noexcept;
  void ReplaceLocked() noexcept;
  /// Takes no memory: the host has renamed already. newName is left with the old one.
  void Relink(std::string_view oldName, std::string& newName, std::string_view replacedName) noexcept;
  bool IsBeingRenamedLocked(std::string_view childName) const;
  bool IsGoingLocked() const;
  /// Tells why there is none.
  boost::shared_ptr<const platform::location_t> LocationOr(platform::error_t& absence) const;
  boost::shared_ptr<const platform::location_t> LocationLocked() const;
  boost::shared_ptr<const platform::location_t> LocationAfterRenames() const;
  /// Whether it is there, and neither it nor a folder around it is just being renamed, replaced or deleted: before a
  /// deletion is told to be over, another client may have made something there.
  bool IsSettledAt(const platform::location_t& location) const;

  CHostFsTree* const tree_;  // Owned by the root, which all others hold by their parents.
  const CHostFsNodePtr parent_;
  std::atomic<std::uint32_t> uses_ = 0;  // Counted up from 0 by the maker alone: at 0 it is going.

  // Guarded by the tree's lock. The location is kept until some rename in the tree makes it doubtful, or until so many
  // others were asked for theirs that the tree gives it up.
  mutable std::uint32_t keptAt_ = 0;  // Its place among the locations that the tree keeps, 0 for none.
  bool isReplaced_ = false;
  bool isGoing_ = false;  // Between TakeChild and what follows.
  std::string name_;
  std::unique_ptr<children_t> children_;  // Nodes that live elsewhere, and leave when they end.
  mutable boost::shared_ptr<const platform::location_t> location_;
  mutable std::uint64_t locationAge_ = 0;
};
