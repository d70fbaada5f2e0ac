// One entry of the catalogue.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/guid.h"
#include "vfs/items/fs_item.h"
#include "vfs/table/nfs_name.h"

struct CNfsShareCfg;

/// The share that an item lies in; one object for all items of the share.
struct CNfsShareInfo {
  GUID uid;
  boost::shared_ptr<CNfsShareCfg> cfg;
};

/// A folder's backings: the primary first, then those of mounts that hold the same path.
struct SNfsFolderSlot {
  boost::shared_ptr<IFsFolder> primary;
  std::vector<boost::shared_ptr<IFsFolder>> mirrors;  ///< Begins with the primary.
  std::uint64_t version = 0;                          ///< Another one after each change of children or backings.
};

/// An item under its FID. All of it is guarded by the lock of the table that holds it.
class CNfsItemRec {
 public:
  /// mountUid: the mount that backs the item, nil for the host's own; asked once, so that no later question has to
  /// wait behind the item's file traffic. Throws runtime_exc_t for an item that is neither file nor folder.
  CNfsItemRec(std::string itemName, std::uint64_t itemParentFid, boost::shared_ptr<CNfsShareInfo> itemShare,
              const boost::shared_ptr<IFsItem>& item, const GUID& mountUid = GUID{});

  bool IsFolder() const { return folder_ != nullptr; }
  /// The file, or the folder's primary.
  boost::shared_ptr<IFsItem> Item() const;
  /// Null for a folder.
  const boost::shared_ptr<IFsFile>& File() const { return file_; }
  /// Null for a file.
  SNfsFolderSlot* Folder() { return folder_.get(); }
  const SNfsFolderSlot* Folder() const { return folder_.get(); }
  /// The file of that mount or the folder's first backing of it; empty when the mount does not back the item.
  boost::shared_ptr<IFsItem> ItemForMount(const GUID& mountUid) const;
  /// Of the file or the primary.
  const GUID& MountUid() const { return mountUid_; }

  std::string name;
  std::uint64_t parentFid;
  boost::shared_ptr<CNfsShareInfo> share;

 private:
  GUID mountUid_;
  boost::shared_ptr<IFsFile> file_;
  std::unique_ptr<SNfsFolderSlot> folder_;
};
