#include "vfs/items/virtual_fs_exc.h"

#include <algorithm>
#include <iterator>

namespace {

struct status_name_t {
  nfsstat3 status;
  const char* name;
};

// In the order of the numbers.
constexpr status_name_t StatusNames[] = {
    {0, "NFS3_OK"},
    {1, "NFS3ERR_PERM"},
    {2, "NFS3ERR_NOENT"},
    {5, "NFS3ERR_IO"},
    {6, "NFS3ERR_NXIO"},
    {13, "NFS3ERR_ACCES"},
    {17, "NFS3ERR_EXIST"},
    {18, "NFS3ERR_XDEV"},
    {19, "NFS3ERR_NODEV"},
    {20, "NFS3ERR_NOTDIR"},
    {21, "NFS3ERR_ISDIR"},
    // Written so in the logs that tools read; 10005 likewise.
    {22, "NFS3ERR_INVA"},
    {27, "NFS3ERR_FBIG"},
    {28, "NFS3ERR_NOSPC"},
    {30, "NFS3ERR_ROFS"},
    {31, "NFS3ERR_MLINK"},
    {63, "NFS3ERR_NAMETOOLONG"},
    {66, "NFS3ERR_NOTEMPTY"},
    {69, "NFS3ERR_DQUOT"},
    {70, "NFS3ERR_STALE"},
    {71, "NFS3ERR_REMOTE"},
    {10001, "NFS3ERR_BADHANDLE"},
    {10002, "NFS3ERR_NOT_SYNC"},
    {10003, "NFS3ERR_BAD_COOKIE"},
    {10004, "NFS3ERR_NOTSUPP"},
    {10005, "NFS3ERR_TOOSMAL"},
    {10006, "NFS3ERR_SERVERFAULT"},
    {10007, "NFS3ERR_BADTYPE"},
    {10008, "NFS3ERR_JUKEBOX"},
};

}  // namespace

std::string NfsStatusName(nfsstat3 status) {
  const auto place = std::lower_bound(std::begin(StatusNames), std::end(StatusNames), status,
                                      [](const status_name_t& entry, nfsstat3 value) { return entry.status < value; });
  if (place != std::end(StatusNames) && place->status == status)
    return place->name;
  return std::to_string(status);
}

CVirtualFsExc::CVirtualFsExc(nfsstat3 status)
    : exc_of_t(exc::FormatText("NFS error:%1 Code: %2", NfsStatusName(status), status)), status_(status) {}

CVirtualFsExc::CVirtualFsExc(std::string_view message, nfsstat3 status)
    : exc_of_t(std::string(message)), status_(status) {}

CVirtualFsExc::CVirtualFsExc(std::string_view pattern, const std::string& argument, nfsstat3 status)
    : exc_of_t(exc::FormatText(pattern, argument)), status_(status) {}

CVirtualFsExc::CVirtualFsExc(std::string_view pattern, const std::string& first, const std::string& second,
                             nfsstat3 status)
    : exc_of_t(exc::FormatText(pattern, first, second)), status_(status) {}

std::string CVirtualFsExc::GetKind() const {
  return "CVirtualFsExc";
}

nfsstat3 StatusFromException(const std::exception& exception) {
  if (const auto* const own = dynamic_cast<const CVirtualFsExc*>(&exception))
    return own->Status();
  if (const auto* const system = dynamic_cast<const exc::win_sys_exc_t*>(&exception))
    return system->Code();
  return NFS3ERR_SERVERFAULT;
}
