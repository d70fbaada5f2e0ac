// What remote files and remote folders have in common.
#pragma once

#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <mutex>
#include <string>
#include <utility>

#include "platform/file_attributes.h"
#include "platform/guid.h"
#include "remotefs/items/remote_fs_connector.h"

class IAddressChecker;

/// The times of an item that the agent knows none of: when it came, and what calls made of them. Any thread.
class CRemoteFsTimes {
 public:
  CRemoteFsTimes();

  void SetGiven(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite);
  void NoteRead();
  void NoteWrite();
  void CopyTo(WIN32_FILE_ATTRIBUTE_DATA& attributes) const;

 private:
  mutable std::mutex lock_;  // Guards all below.
  FILETIME creation_;
  FILETIME lastAccess_;
  FILETIME lastWrite_;
};

/// Who may use the items of a mount. Any thread.
class CRemoteFsAccess {
 public:
  explicit CRemoteFsAccess(const CBackupMountCfg& config);

  bool IsAddressAllowed(const sockaddr_in& address) const;
  /// Empty when everyone may.
  std::string Text() const;
  bool IsEmpty() const;

 private:
  const boost::shared_ptr<IAddressChecker> checker_;  // Null when everyone may.
};

/// What a file and a folder of a backup answer alike, without the agent. Base: IFsFile or IFsFolder.
template <typename Base>
class CRemoteFsItem : public Base {
 public:
  /// The agent knows of no permissions: the times alone change.
  void SetPermissions(bool /*read*/, bool /*write*/) override { times_.NoteWrite(); }
  void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override {
    times_.SetGiven(creation, lastAccess, lastWrite);
  }
  bool Exists() override { return true; }
  bool GetMountUid(GUID& mountUid) override {
    mountUid = mountUid_;
    return true;
  }
  bool IsAddressAllowed(const sockaddr_in& address) override { return access_.IsAddressAllowed(address); }
  std::string GetAllowedHostAddr() override { return access_.Text(); }

 protected:
  CRemoteFsItem(boost::shared_ptr<CRemoteFsConnector> connector, std::string path, const GUID& mountUid)
      : connector_(std::move(connector)),
        path_(std::move(path)),
        mountUid_(mountUid),
        access_(*connector_->GetConfig()) {}

  const boost::shared_ptr<CRemoteFsConnector> connector_;
  const std::string path_;  // Below the backup's root, as the agent is asked for it.
  const GUID mountUid_;
  const CRemoteFsAccess access_;
  CRemoteFsTimes times_;
};
