// Where the service's settings lie in the registry. Keys compare without case; both spellings are kept as they stand.
#pragma once

#include <string_view>

namespace regkeys {

inline constexpr std::string_view Root = "SOFTWARE\\KelvO\\Kelvo NFS";
inline constexpr std::string_view SharedFolders = "SOFTWARE\\KelvO\\Kelvo NFS\\Shared Folders";
inline constexpr std::string_view DynamicMounts = "SOFTWARE\\KelvO\\Kelvo NFS\\Dynamic mounts";
inline constexpr std::string_view ItemsCache = "SOFTWARE\\KelvO\\Kelvo NFS\\ItemsCache";
inline constexpr std::string_view RpcSettings = "SOFTWARE\\Kelvo\\Kelvo NFS";

}  // namespace regkeys
