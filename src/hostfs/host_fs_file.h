// A file of the host as an item of the tree.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>

#include "hostfs/host_fs_file_cache.h"
#include "hostfs/host_fs_node.h"
#include "platform/memory.h"
#include "vfs/items/fs_item.h"

class IAddressChecker;

/// Any thread; the state is the node's and the cache's. Holds no file open itself: reads and writes go through
/// HostFsFileCache. Failures are win_sys_exc_t, runtime_exc_t, or CVirtualFsExc.
class CHostFsFile : public IFsFile {
 public:
  /// The checker may be null: then every address is allowed.
  CHostFsFile(CHostFsNodePtr node, boost::shared_ptr<IAddressChecker> addressChecker);

  void GetItemSpec(SFsItemSpec& spec) override;
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override;
  void SetPermissions(bool read, bool write) override;
  void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override;
  bool Exists() override;
  bool GetMountUid(GUID& mountUid) override;
  bool IsAddressAllowed(const sockaddr_in& address) override;
  std::string GetAllowedHostAddr() override;
  void Foresee() const noexcept override { platform::Prefetch(node_.get(), sizeof(CHostFsNode)); }
  void Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) override;
  void Write(std::uint64_t offset, std::uint32_t count, const void* data) override;
  void Resize(std::uint64_t newSize) override;

  /// Where the file is now.
  std::string LocalPath() const { return node_->Path(); }

 private:
  struct SOpenFile {
    boost::shared_ptr<platform::file_t> file;
    boost::shared_ptr<const platform::location_t> where;
  };
  SOpenFile CachedFile(HostFsFileCache::use_t use) const;

  const CHostFsNodePtr node_;
  const boost::shared_ptr<IAddressChecker> addressChecker_;
};
