// Items of host folders, by FID and by path.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "platform/guid.h"

class CFsItemsTab;
class CHostFsFolder;

/// The item as a folder of the host. Throws CVirtualFsExc 70 for an unknown FID, runtime_exc_t for anything else.
boost::shared_ptr<CHostFsFolder> GetHostFolder(const CFsItemsTab& tab, std::uint64_t fid);

/// Follows a path below a share's root on the disk and makes the table agree with it: what clients created behind the
/// table's back is added, what has gone is removed. The FID of the last component, the root's for an empty path;
/// InvalidFid when the share is unknown or the path is not there. Throws CVirtualFsExc 22 for "." and "..".
std::uint64_t SyncHostFolderPath(CFsItemsTab& tab, const GUID& shareUid, const std::string& relativePath);
