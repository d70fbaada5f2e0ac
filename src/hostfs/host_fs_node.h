// Where a host item is: its place in the tree of names, which renames move.
#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/files.h"

class CHostFsTree;

/// One name below a share's root, shared by all items that stand for it and by all items below it. An item asks for
/// its location at each call, so after a rename it answers at its new place, and so does everything below a folder
/// that was renamed; nobody has to tell them. Any thread.
class CHostFsNode : public boost::enable_shared_from_this<CHostFsNode> {
 public:
  /// The root of a new tree.
  static boost::shared_ptr<CHostFsNode> CreateRoot(const std::string& path, platform::files_t& files);
  CHostFsNode(const CHostFsNode&) = delete;
  CHostFsNode& operator=(const CHostFsNode&) = delete;
  ~CHostFsNode();

  /// The node of a name, as the host spells it, in this folder. Two calls give one node while anyone holds it.
  boost::shared_ptr<CHostFsNode> Child(const std::string& name);
  /// Where it is now; null when a rename has put something else in its place.
  boost::shared_ptr<const platform::location_t> Location() const;
  /// The path for texts: the present one, or the last one of a node that was replaced.
  std::string Path() const;
  platform::files_t& Files() const;

  /// Runs `call` with the location (a shared pointer), again when it found nothing there (2, 3) while something in the
  /// tree was renamed. Gives 2 for a node that was replaced.
  template <typename Call>
  platform::error_t AtLocation(const Call& call) const {
    boost::shared_ptr<const platform::location_t> location = Location();
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
    return platform::error::FileNotFound;
  }

  /// Renames an entry on the host by `rename`, which gives an error number, and on success moves the nodes along.
  /// Names are as the host spells them: before, after, and of what is replaced (empty for nothing; its node then has
  /// no location any more). `rename` must not ask nodes of this tree by AtLocation.
  platform::error_t RenameChild(const std::string& oldName, const std::string& newName, const std::string& replacedName,
                                const std::function<platform::error_t()>& rename);

 private:
  CHostFsNode(boost::shared_ptr<CHostFsTree> tree, boost::shared_ptr<CHostFsNode> parent, std::string name);
  void Relink(const std::string& oldName, const std::string& newName, const std::string& replacedName);
  boost::shared_ptr<const platform::location_t> LocationLocked() const;
  boost::shared_ptr<const platform::location_t> LocationAfterRenames() const;

  const boost::shared_ptr<CHostFsTree> tree_;
  const boost::shared_ptr<CHostFsNode> parent_;

  // Guarded by the tree's lock. The location is kept until some rename in the tree makes it doubtful.
  std::string name_;
  bool isReplaced_ = false;
  std::unordered_map<std::string, boost::weak_ptr<CHostFsNode>> children_;
  mutable boost::shared_ptr<const platform::location_t> location_;
  mutable std::uint64_t locationAge_ = 0;
};
