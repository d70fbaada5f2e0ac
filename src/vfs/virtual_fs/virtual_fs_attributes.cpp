// What clients ask about items, and what they set.
#include <ctime>
#include <utility>

#include "foundation/log.h"
#include "hostfs/host_fs_folder.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/table/nfs_log_filter.h"
#include "vfs/virtual_fs/operation.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// The clock on the wall, taken as if it were UTC: stored times have always been this.
FILETIME LocalTime() {
  timespec now{};
  tm local{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0 || localtime_r(&now.tv_sec, &local) == nullptr) {
    throw exc::win_sys_exc_t("Failed to convert local time to filetime.", platform::error::InvalidParameter);
  }
  constexpr long NsecPerMsec = 1000000;
  now.tv_sec += local.tm_gmtoff;
  now.tv_nsec -= now.tv_nsec % NsecPerMsec;
  return platform::FiletimeFromTimespec(now);
}

FILETIME EffectiveTime(std::uint32_t how, const nfstime3& clientTime) {
  switch (how) {
    case SET_TO_SERVER_TIME:
      return LocalTime();
    case SET_TO_CLIENT_TIME:
      return FiletimeFromNfsTime(clientTime);
    default:
      throw CVirtualFsExc("Failed to calculate effective file modification (access ) time.", NFS3ERR_INVAL);
  }
}

}  // namespace

void ApplyAttributes(IFsItem& item, const sattr3& attributes) {
  if (attributes.setMode)
    item.SetPermissions((attributes.mode & 0400) != 0, (attributes.mode & 0200) != 0);
  if (attributes.setSize) {
    auto* const file = dynamic_cast<IFsFile*>(&item);
    if (file == nullptr)
      throw CVirtualFsExc("Cannot resize non-file item.", NFS3ERR_INVAL);
    file->Resize(attributes.size);
  }
  if (attributes.atimeHow != DONT_CHANGE) {
    const FILETIME time = EffectiveTime(attributes.atimeHow, attributes.atime);
    item.SetTimes(nullptr, &time, nullptr);
  }
  if (attributes.mtimeHow != DONT_CHANGE) {
    const FILETIME time = EffectiveTime(attributes.mtimeHow, attributes.mtime);
    item.SetTimes(nullptr, nullptr, &time);
  }
}

void CVirtualFs::Access(const ACCESS3args& args, const sockaddr_in& client, ACCESS3res& result) noexcept {
  std::uint64_t fid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        fid = FidFromHandle(args.object);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Access: [%1]. Requested from %2.", itemsTab_->GetItemPath(fid), AddressText(client));
        }
        const auto item = itemsTab_->GetItem(fid);
        if (!item)
          throw CVirtualFsExc("The specified file (folder) does not exist.", NFS3ERR_NOENT);
        CheckAddress(*item, client);
        result.attributes = MakeFattr(fid, *item);
        result.access = args.access;
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error(
            exc::FormatText("[Access] Access procedure has failed. Item: [%1].", itemsTab_->GetItemPath(fid)), failure);
      });
}

void CVirtualFs::GetAttrs(const GETATTR3args& args, const sockaddr_in& client, GETATTR3res& result) noexcept {
  std::uint64_t fid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        fid = FidFromHandle(args.object);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Getting attributes of the file/folder [%1]. Requested from %2.",
                            itemsTab_->GetItemPath(fid), AddressText(client));
        }
        const auto item = itemsTab_->GetItem(fid);
        if (!item)
          throw CVirtualFsExc(NFS3ERR_STALE);
        CheckAddress(*item, client);
        result.attributes = MakeFattr(fid, *item);
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        if (!logFilter_->AdmitGetAttrs(fid))
          return;
        g_nfs_log.Error(
            exc::FormatText("[GetAttrs] Failed to retrieve attributes of the file [%1]. ", itemsTab_->GetItemPath(fid)),
            failure);
      });
}

void CVirtualFs::SetAttrs(const SETATTR3args& args, const sockaddr_in& client, SETATTR3res& result) noexcept {
  std::uint64_t fid = InvalidFid;
  AnswerFailures(
      result,
      [&] {
        fid = FidFromHandle(args.object);
        if (g_nfs_log.IsVerbose()) {
          g_nfs_log.Verbose("Updating attributes of the file/folder [%1]. Requested from %2.",
                            itemsTab_->GetItemPath(fid), AddressText(client));
        }
        const auto item = itemsTab_->GetItem(fid);
        if (!item)
          throw CVirtualFsExc(NFS3ERR_STALE);
        CheckAddress(*item, client);
        const wcc_attr before = MakeWccAttr(*item);
        if (args.guard && *args.guard != before.ctime)
          throw CVirtualFsExc(NFS3ERR_NOT_SYNC);
        ApplyAttributes(*item, args.newAttributes);
        result.wcc.before = before;
        result.wcc.after = MakeFattr(fid, *item);
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error(
            exc::FormatText("[SetAttrs] Failed to update attributes of the file [%1].", itemsTab_->GetItemPath(fid)),
            failure);
      });
}

void CVirtualFs::FsInfo(const nfs_fh3&, FSINFO3res& result) noexcept {
  AnswerFailures(
      result,
      [&] {
        g_nfs_log.Verbose("[fsinfo] Collecting static filesystem metrics.");
        result.rtmax = 131072;
        result.rtpref = 65536;
        result.rtmult = 512;
        result.wtmax = 131072;
        result.wtpref = 65536;
        result.wtmult = 512;
        result.dtpref = 1200;
        result.maxfilesize = std::uint64_t{1} << 46;
        result.timeDelta = {.seconds = 0, .nseconds = 1000000};
        result.properties = FSF3_CANSETTIME;
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error("[FsInfo] Failed to collect static file system information.", failure);
      });
}

void CVirtualFs::FsStat(const nfs_fh3& handle, FSSTAT3res& result) noexcept {
  AnswerFailures(
      result,
      [&] {
        g_nfs_log.Verbose("[fsstat] Collecting dynamic filesystem metrics.");
        const std::uint64_t fid = FidFromHandle(handle);
        const auto item = itemsTab_->GetItem(fid);
        if (!item)
          throw CVirtualFsExc("The specified share  does not exist.", NFS3ERR_NOENT);
        const auto folder = boost::dynamic_pointer_cast<CHostFsFolder>(item);
        if (!folder)
          throw CVirtualFsExc("The specified share has invalid type.", NFS3ERR_NOENT);
        result.attributes = MakeFattr(fid, *folder);

        bool isSet = false;
        GetDatastoreSize(isSet, result.tbytes, result.fbytes);
        if (!isSet) {
          const platform::disk_space_t space = folder->GetDiskSpace();
          result.tbytes = space.totalBytes;
          result.fbytes = space.freeBytes;
        }
        result.abytes = result.fbytes;
        // Fixed figures: clients make nothing of them.
        result.tfiles = 20;
        result.ffiles = 100;
        result.afiles = 100;
        result.invarsec = 0;
        result.status = NFS3_OK;
      },
      [&](const std::exception& failure, nfsstat3) {
        g_nfs_log.Error("[FsStat] Failed to collect dynamic file system information.", failure);
      });
}

void CVirtualFs::SetDatastoreSize(std::uint64_t totalBytes, std::uint64_t freeBytes) {
  const std::lock_guard<std::mutex> lock(sizeMutex_);
  customTotalBytes_ = totalBytes;
  customFreeBytes_ = freeBytes;
  customSizeSet_ = true;
}

void CVirtualFs::ResetDatastoreSize() {
  const std::lock_guard<std::mutex> lock(sizeMutex_);
  customSizeSet_ = false;
}

void CVirtualFs::GetDatastoreSize(bool& isSet, std::uint64_t& totalBytes, std::uint64_t& freeBytes) const {
  const std::lock_guard<std::mutex> lock(sizeMutex_);
  isSet = customSizeSet_;
  totalBytes = customTotalBytes_;
  freeBytes = customFreeBytes_;
}
