// What remote files and remote folders have in common.
#pragma once

#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <mutex>
#include <string>

#include "platform/file_attributes.h"
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
