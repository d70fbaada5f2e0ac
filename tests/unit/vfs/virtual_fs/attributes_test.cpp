// ACCESS, GETATTR, SETATTR, FSINFO and FSSTAT.
#include <sys/stat.h>

#include <ctime>

#include "virtual_fs_fixture.h"

namespace test {
namespace {

using Attributes = VirtualFsFixture;

nfs_fh3 ShortHandle() {
  nfs_fh3 handle;
  handle.size = 7;
  return handle;
}

TEST_F(Attributes, OfAFile) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  const auto result = GetAttrs(fid);
  ASSERT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.attributes.type, NF3REG);
  EXPECT_EQ(result.attributes.mode, 0777U);
  EXPECT_EQ(result.attributes.size, 5U);
  EXPECT_EQ(result.attributes.used, 5U);
  EXPECT_EQ(result.attributes.fileid, fid);
}

TEST_F(Attributes, OfAFolder) {
  const auto result = GetAttrs(root);
  ASSERT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.attributes.type, NF3DIR);
  EXPECT_EQ(result.attributes.fileid, root);
}

TEST_F(Attributes, OfARemovedItemAreStale) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Remove(root, "disk"), NFS3_OK);
  EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE);
  EXPECT_EQ(SetAttrs(fid, {}).status, NFS3ERR_STALE);
}

TEST_F(Attributes, AccessToARemovedItemIsNotFound) {
  ACCESS3res result;
  fs->Access({.object = HandleFromFid(4711), .access = 0x3f}, client, result);
  EXPECT_EQ(result.status, NFS3ERR_NOENT);
  EXPECT_FALSE(result.attributes);
}

TEST_F(Attributes, AccessGivesWhatWasAskedFor) {
  ACCESS3res result;
  fs->Access({.object = HandleFromFid(root), .access = 0x2d}, client, result);
  EXPECT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.access, 0x2dU);
  ASSERT_TRUE(result.attributes);
  EXPECT_EQ(result.attributes->fileid, root);
}

TEST_F(Attributes, AHandleThatIsTooShortIsAServerFault) {
  ACCESS3res access;
  fs->Access({.object = ShortHandle(), .access = 1}, client, access);
  EXPECT_EQ(access.status, NFS3ERR_SERVERFAULT);
  GETATTR3res attributes;
  fs->GetAttrs({.object = ShortHandle()}, client, attributes);
  EXPECT_EQ(attributes.status, NFS3ERR_SERVERFAULT);
  FSSTAT3res stat;
  fs->FsStat(ShortHandle(), stat);
  EXPECT_EQ(stat.status, NFS3ERR_SERVERFAULT);
}

TEST_F(Attributes, ARefusedClientIsToldSo) {
  const auto backend = boost::make_shared<SFakeBackend>();
  const auto fake = PublishFake(backend);
  backend->root->refused.insert(client.sin_addr.s_addr);
  ACCESS3res access;
  fs->Access({.object = HandleFromFid(fake), .access = 1}, client, access);
  EXPECT_EQ(access.status, NFS3ERR_ACCES);
  EXPECT_EQ(GetAttrs(fake).status, NFS3ERR_ACCES);
  EXPECT_EQ(SetAttrs(fake, {}).status, NFS3ERR_ACCES);
}

TEST_F(Attributes, NothingToSetStillAnswersBeforeAndAfter) {
  const auto fid = MakeFile(root, "disk");
  const auto now = GetAttrs(fid).attributes;
  const auto result = SetAttrs(fid, {}, now.ctime);
  ASSERT_EQ(result.status, NFS3_OK);
  ASSERT_TRUE(result.wcc.before);
  ASSERT_TRUE(result.wcc.after);
  EXPECT_EQ(result.wcc.before->size, 0U);
  EXPECT_EQ(result.wcc.before->ctime, now.ctime);
  EXPECT_EQ(*result.wcc.after, now);
}

TEST_F(Attributes, AGuardThatDiffersIsOutOfSync) {
  const auto fid = MakeFile(root, "disk");
  const auto ctime = GetAttrs(fid).attributes.ctime;
  sattr3 size;
  size.setSize = true;
  size.size = 10;
  EXPECT_EQ(SetAttrs(fid, size, nfstime3{ctime.seconds + 1, ctime.nseconds}).status, NFS3ERR_NOT_SYNC);
  EXPECT_EQ(SetAttrs(fid, size, nfstime3{ctime.seconds, ctime.nseconds + 100}).status, NFS3ERR_NOT_SYNC);
  EXPECT_EQ(GetAttrs(fid).attributes.size, 0U);
  const auto failed = SetAttrs(fid, size, nfstime3{ctime.seconds + 1, 0});
  EXPECT_FALSE(failed.wcc.before);
  EXPECT_FALSE(failed.wcc.after);
}

TEST_F(Attributes, TheSizeIsSet) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  sattr3 attributes;
  attributes.setSize = true;
  attributes.size = 3;
  const auto result = SetAttrs(fid, attributes);
  ASSERT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.wcc.before->size, 5U);
  EXPECT_EQ(result.wcc.after->size, 3U);
  EXPECT_EQ(Read(fid), "hel");
}

TEST_F(Attributes, TheSizeOfAFolderIsInvalid) {
  sattr3 attributes;
  attributes.setSize = true;
  EXPECT_EQ(SetAttrs(root, attributes).status, NFS3ERR_INVAL);
}

TEST_F(Attributes, TheModeMakesAFileReadOnly) {
  const auto fid = MakeFile(root, "disk");
  sattr3 attributes;
  attributes.setMode = true;
  attributes.mode = 0400;
  ASSERT_EQ(SetAttrs(fid, attributes).status, NFS3_OK);
  struct stat info {};
  ASSERT_EQ(stat((local / "disk").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0222U, 0U);
  attributes.mode = 0200;
  ASSERT_EQ(SetAttrs(fid, attributes).status, NFS3_OK);
  ASSERT_EQ(stat((local / "disk").c_str(), &info), 0);
  EXPECT_NE(info.st_mode & 0200U, 0U);
}

TEST_F(Attributes, AClientsTimeIsStoredWithTheUnscaledEpoch) {
  const auto backend = boost::make_shared<SFakeBackend>();
  const auto file = backend->Put("disk", false);
  const auto fid = Find(PublishFake(backend), "disk");
  sattr3 attributes;
  attributes.atimeHow = SET_TO_CLIENT_TIME;
  attributes.atime = {1000000000, 500};
  attributes.mtimeHow = SET_TO_CLIENT_TIME;
  attributes.mtime = {1000000001, 0};
  ASSERT_EQ(SetAttrs(fid, attributes).status, NFS3_OK);
  EXPECT_EQ(file->attributes.lastAccessTime, 10000000000000005ULL + 11644473600ULL);
  EXPECT_EQ(file->attributes.lastWriteTime, 10000000010000000ULL + 11644473600ULL);
  EXPECT_EQ(file->attributes.creationTime, 0U);
  EXPECT_NE(GetAttrs(fid).attributes.mtime.seconds, 1000000001U);
}

TEST_F(Attributes, TheServersTimeIsTheLocalOne) {
  const ScopedEnvironment zone("TZ", "XXX-5");  // Five hours east.
  tzset();
  const auto backend = boost::make_shared<SFakeBackend>();
  const auto file = backend->Put("disk", false);
  const auto fid = Find(PublishFake(backend), "disk");
  sattr3 attributes;
  attributes.mtimeHow = SET_TO_SERVER_TIME;
  const auto before = static_cast<std::uint64_t>(time(nullptr));
  ASSERT_EQ(SetAttrs(fid, attributes).status, NFS3_OK);
  const auto after = static_cast<std::uint64_t>(time(nullptr));
  const std::uint64_t stored =
      file->attributes.lastWriteTime / 10000000 - platform::FiletimeEpochSeconds - std::uint64_t{5} * 3600;
  EXPECT_GE(stored, before);
  EXPECT_LE(stored, after);
  EXPECT_EQ(file->attributes.lastWriteTime % 10000, 0U) << "the time has milliseconds";
}

TEST_F(Attributes, AnUnknownWayToSetATimeIsInvalid) {
  const auto fid = MakeFile(root, "disk");
  sattr3 attributes;
  attributes.atimeHow = 3;
  EXPECT_EQ(SetAttrs(fid, attributes).status, NFS3ERR_INVAL);
  attributes.atimeHow = DONT_CHANGE;
  attributes.mtimeHow = 99;
  EXPECT_EQ(SetAttrs(fid, attributes).status, NFS3ERR_INVAL);
}

TEST_F(Attributes, FsInfoLooksAtNoHandle) {
  FSINFO3res result;
  fs->FsInfo(ShortHandle(), result);
  EXPECT_EQ(result.status, NFS3_OK);
  EXPECT_FALSE(result.attributes);
  EXPECT_EQ(result.rtmax, 131072U);
  EXPECT_EQ(result.rtpref, 65536U);
  EXPECT_EQ(result.rtmult, 512U);
  EXPECT_EQ(result.wtmax, 131072U);
  EXPECT_EQ(result.wtpref, 65536U);
  EXPECT_EQ(result.wtmult, 512U);
  EXPECT_EQ(result.dtpref, 1200U);
  EXPECT_EQ(result.maxfilesize, 70368744177664U);
  EXPECT_EQ(result.timeDelta, (nfstime3{0, 1000000}));
  EXPECT_EQ(result.properties, 16U);
}

TEST_F(Attributes, FsStatTellsTheDiskOrWhatWasSet) {
  const auto stat = [&](std::uint64_t fid) {
    FSSTAT3res result;
    fs->FsStat(HandleFromFid(fid), result);
    return result;
  };
  const auto disk = stat(root);
  ASSERT_EQ(disk.status, NFS3_OK);
  EXPECT_EQ(disk.tbytes, std::filesystem::space(local).capacity);
  EXPECT_EQ(disk.abytes, disk.fbytes);
  EXPECT_LE(disk.fbytes, disk.tbytes);
  EXPECT_EQ(disk.tfiles, 20U);
  EXPECT_EQ(disk.ffiles, 100U);
  EXPECT_EQ(disk.afiles, 100U);
  EXPECT_EQ(disk.invarsec, 0U);
  ASSERT_TRUE(disk.attributes);
  EXPECT_EQ(disk.attributes->fileid, root);

  fs->SetDatastoreSize(1000, 5000);
  EXPECT_EQ(stat(root).tbytes, 1000U);
  EXPECT_EQ(stat(root).fbytes, 5000U);
  EXPECT_EQ(stat(root).abytes, 5000U);
  fs->ResetDatastoreSize();
  EXPECT_EQ(stat(root).tbytes, disk.tbytes);
  bool isSet = true;
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  fs->GetDatastoreSize(isSet, total, free);
  EXPECT_FALSE(isSet);
  EXPECT_EQ(total, 1000U);
  EXPECT_EQ(free, 5000U);
}

TEST_F(Attributes, FsStatOfWhatIsNoHostFolderIsNotFound) {
  FSSTAT3res result;
  fs->FsStat(HandleFromFid(4711), result);
  EXPECT_EQ(result.status, NFS3ERR_NOENT);
  EXPECT_FALSE(result.attributes);
  fs->FsStat(HandleFromFid(MakeFile(root, "disk")), result);
  EXPECT_EQ(result.status, NFS3ERR_NOENT);
  fs->FsStat(HandleFromFid(PublishFake(boost::make_shared<SFakeBackend>())), result);
  EXPECT_EQ(result.status, NFS3ERR_NOENT);
}

}  // namespace
}  // namespace test
