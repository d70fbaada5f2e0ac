#include "vfs/items/virtual_fs_exc.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace {

TEST(VirtualFsExc, NamesEachStatusAndPrintsTheOthersAsNumbers) {
  const std::pair<nfsstat3, const char*> names[] = {{0, "NFS3_OK"},
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
                                                    {3, "3"},
                                                    {10000, "10000"},
                                                    {10009, "10009"},
                                                    {4294967295U, "4294967295"}};
  for (const auto& [status, name] : names)
    EXPECT_EQ(NfsStatusName(status), name);
}

TEST(VirtualFsExc, HasADefaultTextThatAMessageReplaces) {
  EXPECT_STREQ(CVirtualFsExc(NFS3ERR_NOENT).what(), "NFS error:NFS3ERR_NOENT Code: 2");
  EXPECT_STREQ(CVirtualFsExc(1234).what(), "NFS error:1234 Code: 1234");
  EXPECT_STREQ(CVirtualFsExc("It is gone", NFS3ERR_STALE).what(), "It is gone");
  EXPECT_STREQ(CVirtualFsExc("No %1 here", "file", NFS3ERR_NOENT).what(), "No file here");
  EXPECT_STREQ(CVirtualFsExc("%2 in %1", "a", "b", NFS3ERR_NOENT).what(), "b in a");
  EXPECT_EQ(CVirtualFsExc("%2 in %1", "a", "b", NFS3ERR_NOENT).Status(), NFS3ERR_NOENT);
  EXPECT_EQ(CVirtualFsExc(2).GetKind(), "CVirtualFsExc");
}

TEST(VirtualFsExc, KeepsItsStatusWhenATextIsChained) {
  try {
    try {
      throw CVirtualFsExc("Gone", NFS3ERR_STALE);
    } catch (const std::exception& failure) {
      exc::ChainAndThrow("While reading.", failure);
    }
  } catch (const CVirtualFsExc& chained) {
    EXPECT_EQ(chained.Status(), NFS3ERR_STALE);
    EXPECT_STREQ(chained.what(), "Gone\nWhile reading.");
    EXPECT_EQ(StatusFromException(*chained.Clone()), NFS3ERR_STALE);
  }
}

TEST(StatusFromException, GivesTheStoredNumberAndAFaultForAllElse) {
  EXPECT_EQ(StatusFromException(CVirtualFsExc(NFS3ERR_NOTDIR)), NFS3ERR_NOTDIR);
  EXPECT_EQ(StatusFromException(exc::win_sys_exc_t("Denied", 5)), 5u);
  EXPECT_EQ(StatusFromException(exc::win_sys_exc_t("Closed", 10054)), 10054u);
  EXPECT_EQ(StatusFromException(exc::runtime_exc_t("Cannot generate FID from file handle.")), NFS3ERR_SERVERFAULT);
  EXPECT_EQ(StatusFromException(std::runtime_error("?")), NFS3ERR_SERVERFAULT);
}

}  // namespace
