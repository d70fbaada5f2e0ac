// The names of arguments and results.
#pragma once

#include <string>

namespace argument_names {

inline std::string AllowedHostAddr() {
  return "allowedHostAddr";
}
inline std::string BackupConsoleVersion() {
  return "backupConsoleVersion";
}
inline std::string Description() {
  return "description";
}
inline std::string HostFsPath() {
  return "hostFsPath";
}
inline std::string IsCompatible() {
  return "isCompatible";
}
inline std::string LogFolder() {
  return "LogFolder";
}
inline std::string Locks() {
  return "locks";
}
inline std::string MountId() {
  return "mountId";
}
inline std::string MountPoint() {
  return "mountPoint";
}
inline std::string MountPort() {
  return "mountPort";
}
inline std::string NfsCustomSize() {
  return "nfsCustomSize";
}
inline std::string NfsFolderPath() {
  return "nfsFolderPath";
}
inline std::string NfsFreeSpace() {
  return "nfsFreeSpace";
}
inline std::string NfsPort() {
  return "nfsPort";
}
inline std::string NfsRelativePath() {
  return "nfsRelativePath";
}
inline std::string NfsTotalSpace() {
  return "nfsTotalSpace";
}
inline std::string PipeName() {
  return "pipeName";
}
inline std::string RootFolder() {
  return "rootFolder";
}
inline std::string RpcPort() {
  return "rpcPort";
}
inline std::string ShareId() {
  return "shareId";
}
inline std::string VmName() {
  return "vmName";
}

}  // namespace argument_names
