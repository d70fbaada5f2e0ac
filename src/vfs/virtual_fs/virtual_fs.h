// The facade between the protocol programs and the catalogue of items.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <exception>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/guid.h"
#include "vfs/items/fs_item.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/nfs_name.h"

class CCompletionEventsAllocator;
class CFsItemsTab;
class CFsProcInvoker;
class CNfsLogFilter;
class CNfsWholeListing;
class CRegConfig;
class CRegConfigUpdateSink;
class CRemoteFsHealthCheckThread;
class CRemoteFsMounter;
class IFsProcCompletionCallback;
struct CBackupMountCfg;
struct CNfsShareCfg;
struct SRegConfigData;

struct nfs_fh3;
struct ACCESS3args;
struct ACCESS3res;
struct GETATTR3args;
struct GETATTR3res;
struct SETATTR3args;
struct SETATTR3res;
struct LOOKUP3args;
struct LOOKUP3res;
struct CREATE3args;
struct CREATE3res;
struct MKDIR3args;
struct MKDIR3res;
struct REMOVE3args;
struct REMOVE3res;
struct RMDIR3args;
struct RMDIR3res;
struct RENAME3args;
struct RENAME3res;
struct READDIRPLUS3args;
struct READDIRPLUS3res;
struct FSINFO3res;
struct FSSTAT3res;
struct WRITE3args;
struct WRITE3res;

/// Who keeps the service busy, and with what job: the machine of a backup mount, and an empty text.
using service_lock_t = std::pair<std::string, std::string>;

/// One served tree: the shares, their items, and what clients and administrators do with them.
///
/// Any thread may call any operation at any time; an operation is a sequence of separately locked steps and holds
/// no lock across file work. The NFS operations never throw: every failure ends as the failed form of the result.
/// The administrative operations throw.
class CVirtualFs {
 public:
  /// Brings the tree back from the registry: shares, then mounts, then what lies below them; then watches over the
  /// mounts. Throws when the registry or the root folder cannot be used, and when the folder of a mount is not there;
  /// one bad share, item, agent or key costs that one alone.
  CVirtualFs();
  CVirtualFs(const CVirtualFs&) = delete;
  CVirtualFs& operator=(const CVirtualFs&) = delete;
  /// No operation may be under way.
  ~CVirtualFs();

  /// @name NFS operations (RFC 1813, 3.3). client is the caller's address; each fills the whole result.
  /// @{
  void Access(const ACCESS3args& args, const sockaddr_in& client, ACCESS3res& result) noexcept;
  void GetAttrs(const GETATTR3args& args, const sockaddr_in& client, GETATTR3res& result) noexcept;
  void SetAttrs(const SETATTR3args& args, const sockaddr_in& client, SETATTR3res& result) noexcept;
  void Lookup(const LOOKUP3args& args, const sockaddr_in& client, LOOKUP3res& result) noexcept;
  void CreateFile(const CREATE3args& args, const sockaddr_in& client, CREATE3res& result) noexcept;
  void CreateDir(const MKDIR3args& args, const sockaddr_in& client, MKDIR3res& result) noexcept;
  void Remove(const REMOVE3args& args, const sockaddr_in& client, REMOVE3res& result) noexcept;
  /// Recursive. Removing what is not there succeeds.
  void RemoveDir(const RMDIR3args& args, const sockaddr_in& client, RMDIR3res& result) noexcept;
  void Rename(const RENAME3args& args, const sockaddr_in& client, RENAME3res& result) noexcept;
  void ReadDirPlus(const READDIRPLUS3args& args, const sockaddr_in& client, READDIRPLUS3res& result) noexcept;
  /// The handle is not looked at.
  void FsInfo(const nfs_fh3& handle, FSINFO3res& result) noexcept;
  void FsStat(const nfs_fh3& handle, FSSTAT3res& result) noexcept;
  /// Fills the buffer and gives 0, or gives the status of the failure and leaves the buffer undefined. count goes
  /// to the backend as it stands.
  nfsstat3 Read(const nfs_fh3& handle, std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) noexcept;
  /// What of the data is still in the kernel is brought into memory where the file needs it there.
  void Write(const WRITE3args& args, WRITE3res& result) noexcept;
  /// Queues the transfer; the buffer lives until the callback ran. Throws what keeps it from being queued.
  void AsyncRead(const nfs_fh3& handle, std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer,
                 const boost::shared_ptr<IFsProcCompletionCallback>& callback);
  /// Queues the transfer; args.data and its reader live until the callback ran. A failure to queue goes to the
  /// callback.
  void AsyncWrite(const WRITE3args& args, const boost::shared_ptr<IFsProcCompletionCallback>& callback) noexcept;
  /// @}

  /// @name Administration. Those marked (L) throw "Virtual file system is locked." after Lock().
  /// @{
  /// (L) Publishes the configuration's local folder, made if missing, and stores the share. Gives its new identity.
  GUID CreateShare(const boost::shared_ptr<CNfsShareCfg>& cfg);
  /// (L) Withdraws a share from clients and registry; its files stay. One that is not there is no fault.
  void DismountShare(const GUID& uid);
  /// (L) Shows a backup in a folder of a share, under an identity that the caller gives, and stores the mount.
  void MountBackupItems(const GUID& mountUid, const boost::shared_ptr<CBackupMountCfg>& cfg);
  /// (L) Withdraws it from clients and registry. One that is not there is no fault.
  void DismountBackupItems(const GUID& mountUid);
  /// (L) Makes a folder path inside a share, each level with this address list. Gives the local path.
  std::string CreateHostFolder(const GUID& uid, const std::string& relativePath, const std::string& allowedHostAddr);
  /// (L) Removes a folder of a share with all that it holds. One that is gone is no fault.
  void DeleteHostFolder(const GUID& uid, const std::string& relativePath);
  /// (L) A copy of the share's configuration.
  boost::shared_ptr<CNfsShareCfg> GetShareCfgCopy(const GUID& uid);
  /// The handle of the share that is mounted under the path. Throws when there is none.
  nfs_fh3 GetShareHandle(const std::string& alias);
  /// (L) The identity of the share that is mounted under the path. Throws when there is none.
  GUID GetShareId(const std::string& alias);

  /// The machines of the mounts whose agents are connected.
  std::set<service_lock_t> EnumLocks();
  /// Drops the catalogue entries that no item stands for.
  void ClearItemsCache();
  /// Refuses further changes to shares and folders until the process ends. NFS calls go on.
  void Lock() noexcept { isLocked_ = true; }

  /// What FSSTAT reports in place of the disk's own numbers, bytes; taken as given, not stored.
  void SetDatastoreSize(std::uint64_t totalBytes, std::uint64_t freeBytes);
  /// Back to the disk's numbers; the stored values stay readable.
  void ResetDatastoreSize();
  void GetDatastoreSize(bool& isSet, std::uint64_t& totalBytes, std::uint64_t& freeBytes) const;
  /// @}

  /// The catalogue, for those that publish items in it.
  const boost::shared_ptr<CFsItemsTab>& ItemsTab() const { return itemsTab_; }

 private:
  // Start and resumption.
  void Initialize();
  void ResumeShares(const SRegConfigData& catalogue);
  void ResumeShare(const GUID& uid, const boost::shared_ptr<CNfsShareCfg>& cfg, const SRegConfigData& catalogue);
  /// After the mounts are back: what was stored below the shares, of the host and of the mounts.
  void ResumeRemoteItems(const SRegConfigData& catalogue);
  void MountShare(const GUID& uid, const boost::shared_ptr<CNfsShareCfg>& cfg, std::uint64_t fid);
  void ClearStaleItems(const SRegConfigData& catalogue);
  void CheckNotLocked() const;

  // Steps that several operations share. All throw unless told otherwise.
  /// found: where its item goes; it may be gone by then.
  std::uint64_t FindChild(std::uint64_t parentFid, const std::string& name,
                          boost::shared_ptr<IFsItem>* found = nullptr);
  /// What the table has at a place, and at which moment among the renames.
  struct SPlace {
    std::uint64_t fid = InvalidFid;
    boost::shared_ptr<IFsItem> item;
    std::uint64_t renamesEnded = 0;
  };
  SPlace LookAt(std::uint64_t parentFid, const std::string& name) const;
  /// Adds what was made at the place after the look at it. When it has lost its name again, gives what has come
  /// instead, or InvalidFid.
  std::uint64_t AddMade(std::uint64_t parentFid, const std::string& name, const boost::shared_ptr<IFsItem>& made,
                        SPlace place);
  std::uint64_t MakeSubfolder(IFsFolder& folder, std::uint64_t parentFid, const std::string& name,
                              const std::string& allowedHostAddr);
  void RenameEntry(const RENAME3args& args, const sockaddr_in& client, std::uint64_t fromDir, std::uint64_t toDir);
  /// The children as backends and table have them from here on.
  boost::shared_ptr<CNfsWholeListing> RefreshDirListing(std::uint64_t folderFid);
  void LogReadFailure(std::uint64_t fid, std::uint64_t offset, const std::exception& failure) noexcept;
  void LogWriteFailure(std::uint64_t fid, std::uint64_t offset, const std::exception& failure) noexcept;

  // Constant after construction, in the order in which they are made.
  boost::shared_ptr<CRegConfig> regConfig_;
  boost::shared_ptr<CNfsLogFilter> logFilter_;
  boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator_;
  boost::shared_ptr<CFsProcInvoker> invoker_;
  boost::shared_ptr<CRegConfigUpdateSink> updateSink_;
  boost::shared_ptr<CFsItemsTab> itemsTab_;
  boost::shared_ptr<CRemoteFsMounter> mounter_;
  boost::shared_ptr<CRemoteFsHealthCheckThread> healthCheck_;

  std::atomic<bool> isLocked_{false};
  // Equal while no rename is between its backend and the table.
  std::atomic<std::uint64_t> renamesBegun_{0};
  std::atomic<std::uint64_t> renamesEnded_{0};

  std::mutex sharesMutex_;        // One change of the shares at a time, so that table and registry end up the same.
  mutable std::mutex sizeMutex_;  // Guards the three below.
  bool customSizeSet_ = false;
  std::uint64_t customTotalBytes_ = 0;
  std::uint64_t customFreeBytes_ = 0;
};
