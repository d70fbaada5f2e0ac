// A folder of the host as an item of the tree.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "hostfs/host_fs_node.h"
#include "vfs/items/fs_item.h"

class CCompletionEventsAllocator;
class CFsProcInvoker;
class IAddressChecker;

/// Any thread. Children are made on demand and share the folder's tree of names: a rename through RenameChild moves
/// every living item of the renamed entry, and of everything below it, to its new place at once. Whoever needs an
/// item for something below a share therefore walks down with OpenChild or ResumeChild from the share's root item,
/// and does not build one from a path. Files are handed out wrapped in CAsyncFsFileWrapper, folders bare.
///
/// A name with `/`, `\` or a zero byte never reaches the host: opening finds nothing, deleting does nothing, creating
/// it or renaming to it is CVirtualFsExc 22, renaming it is 2. "." and ".." are 22 except for opening, which finds
/// nothing. A name that is not UTF-8 is win_sys_exc_t 1113.
class CHostFsFolder : public IFsFolder {
 public:
  /// The folder at a host path, which need not exist; `isRootFolder` for what a share publishes. Nothing below leads
  /// out of it. An empty list text gives no checker. `files` must outlive the tree.
  static boost::shared_ptr<CHostFsFolder> Create(const std::string& path, boost::shared_ptr<CFsProcInvoker> invoker,
                                                 boost::shared_ptr<CCompletionEventsAllocator> allocator,
                                                 const std::string& allowedHostAddr, bool isRootFolder,
                                                 platform::files_t& files = platform::SystemFiles());

  CHostFsFolder(CHostFsNodePtr node, boost::shared_ptr<CFsProcInvoker> invoker,
                boost::shared_ptr<CCompletionEventsAllocator> allocator,
                boost::shared_ptr<IAddressChecker> addressChecker, bool isRootFolder);
  /// Without a checker.
  CHostFsFolder(CHostFsNodePtr node, boost::shared_ptr<CFsProcInvoker> invoker,
                boost::shared_ptr<CCompletionEventsAllocator> allocator, bool isRootFolder);

  void GetItemSpec(SFsItemSpec& spec) override;
  /// Also makes the folder again when it is the configured root folder and has gone.
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override;
  void SetPermissions(bool read, bool write) override;
  /// Always throws.
  void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override;
  bool Exists() override;
  bool GetMountUid(GUID& mountUid) override;
  bool IsAddressAllowed(const sockaddr_in& address) override;
  std::string GetAllowedHostAddr() override;
  void Enumerate(SFsEnumeration& enumeration) override;
  std::optional<SFsFolderState> GetState() override;
  boost::shared_ptr<IFsItem> CreateFile(const std::string& name, const std::string& allowedHostAddr) override;
  boost::shared_ptr<IFsItem> CreateSubfolder(const std::string& name, const std::string& allowedHostAddr) override;
  boost::shared_ptr<IFsItem> OpenChild(const std::string& name) override;
  boost::shared_ptr<IFsItem> ResumeChild(const std::string& name, const SFsItemSpec& spec) override;
  void DeleteChild(const std::string& name) override;
  void RenameChild(const std::string& oldName, const std::string& newName) override;
  bool IsAddressListEmpty() override;
  bool IsRootFolder() override;

  /// Where the folder is now.
  std::string LocalPath() const { return node_->Path(); }
  /// Of the file system that holds the folder. Throws win_sys_exc_t.
  platform::disk_space_t GetDiskSpace() const;
  /// Closes what is open below the folder and removes it with all its content. A folder that has gone is no failure.
  void DeleteRecursively();

 private:
  CHostFsNodePtr FindChild(const std::string& name, bool& isFolder);
  boost::shared_ptr<IFsItem> MakeItem(const CHostFsNodePtr& node, bool isFolder,
                                      const boost::shared_ptr<IAddressChecker>& checker);
  std::string ChildPath(const std::string& name) const;
  bool RestoreRootFolder();

  const CHostFsNodePtr node_;
  const boost::shared_ptr<CFsProcInvoker> invoker_;
  const boost::shared_ptr<CCompletionEventsAllocator> allocator_;
  const boost::shared_ptr<IAddressChecker> addressChecker_;
  const bool isRootFolder_;
};
