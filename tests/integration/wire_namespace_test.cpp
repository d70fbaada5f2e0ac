// Names and attributes over the wire.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class NamespaceTest : public CWireTest {};
KELVO_WIRE_SUITE(NamespaceTest);

std::uint64_t FidOf(const bytes_t& handle) {
  std::uint64_t fid = 0;
  for (int i = 7; i >= 0; --i)
    fid = fid << 8 | static_cast<unsigned char>(handle[static_cast<std::size_t>(i)]);
  return fid;
}

TEST_P(NamespaceTest, HandlesAre23BytesWithTheFidInTheFirstEightAndZerosBehind) {
  WriteFile(HostPath("a"), "x");
  const bytes_t handle = HandleOf("a");
  ASSERT_EQ(handle.size(), 23U);
  EXPECT_EQ(handle.substr(8), bytes_t(15, '\0'));
  SAttributes attributes;
  ASSERT_EQ(Client().GetAttr(handle, &attributes), Ok);
  EXPECT_EQ(attributes.fileid, FidOf(handle));
}

TEST_P(NamespaceTest, AttributesOfAFileAreTheDescribedConstantsAndItsSizeAndTimes) {
  WriteFile(HostPath("file"), std::string(1234, 'x'));
  const timespec times[2] = {{1700000000, 123456700}, {1600000000, 987654300}};
  ASSERT_EQ(utimensat(AT_FDCWD, HostPath("file").c_str(), times, 0), 0);
  SAttributes a;
  ASSERT_EQ(Client().GetAttr(HandleOf("file"), &a), Ok);
  EXPECT_EQ(a.type, 1U);
  EXPECT_EQ(a.mode, 0777U);
  EXPECT_EQ(a.nlink, 1U);
  EXPECT_EQ(a.uid, 1U);
  EXPECT_EQ(a.gid, 1U);
  EXPECT_EQ(a.size, 1234U);
  EXPECT_EQ(a.used, 1234U);
  EXPECT_EQ(a.rdev, 0U);
  EXPECT_EQ(a.fsid, 1U);
  EXPECT_EQ(a.atime[0], 1700000000U);
  EXPECT_EQ(a.atime[1], 123456700U);
  EXPECT_EQ(a.mtime[0], 1600000000U);
  EXPECT_EQ(a.mtime[1], 987654300U);
}

TEST_P(NamespaceTest, AFolderIsOfTypeTwo) {
  SAttributes a;
  ASSERT_EQ(Client().GetAttr(root_, &a), Ok);
  EXPECT_EQ(a.type, 2U);
  EXPECT_EQ(a.mode, 0777U);
}

TEST_P(NamespaceTest, AFileOf5GiBHasAllItsSize) {
  WriteFile(HostPath("large"), "");
  ASSERT_EQ(truncate(HostPath("large").c_str(), 5LL << 30), 0);
  SAttributes a;
  ASSERT_EQ(Client().GetAttr(HandleOf("large"), &a), Ok);
  EXPECT_EQ(a.size, 5ULL << 30);
  EXPECT_EQ(a.used, 5ULL << 30);
}

TEST_P(NamespaceTest, AnEmptyFileHasSizeAndUsedZero) {
  WriteFile(HostPath("empty"), "");
  SAttributes a;
  ASSERT_EQ(Client().GetAttr(HandleOf("empty"), &a), Ok);
  EXPECT_EQ(a.size, 0U);
  EXPECT_EQ(a.used, 0U);
}

TEST_P(NamespaceTest, LookupAnswersTheSameHandleEachTime) {
  WriteFile(HostPath("same"), "");
  EXPECT_EQ(HandleOf("same"), HandleOf("same"));
}

TEST_P(NamespaceTest, LookupIgnoresTheCaseOfAName) {
  WriteFile(HostPath("Disk.VMDK"), "x");
  EXPECT_EQ(HandleOf("disk.vmdk"), HandleOf("DISK.vmdk"));
}

TEST_P(NamespaceTest, LookupOfDotIsTheFolderItselfAndOfDotDotItsParent) {
  fs::create_directory(HostPath("sub"));
  const bytes_t sub = HandleOf("sub");
  EXPECT_EQ(HandleOf(".", sub), sub);
  EXPECT_EQ(HandleOf("..", sub), root_);
}

TEST_P(NamespaceTest, DotDotAtTheRootOfAShareLeadsNowhere) {
  EXPECT_EQ(Client().Lookup(root_, ".."), NoEntry);
}

TEST_P(NamespaceTest, LookupOfAMissingNameIs2) {
  EXPECT_EQ(Client().Lookup(root_, "missing"), NoEntry);
}

TEST_P(NamespaceTest, WhatAppearsOnTheHostIsFoundAndWhatGoesLeavesAStaleHandle) {
  EXPECT_EQ(Client().Lookup(root_, "late"), NoEntry);
  WriteFile(HostPath("late"), "x");
  const bytes_t handle = HandleOf("late");
  fs::remove(HostPath("late"));
  EXPECT_EQ(Client().Lookup(root_, "late"), NoEntry);
  EXPECT_EQ(Client().GetAttr(handle), Stale);
  EXPECT_EQ(Client().Access(handle, 1), NoEntry);
}

TEST_P(NamespaceTest, AccessReturnsTheBitsAskedFor) {
  std::uint32_t granted = 0;
  EXPECT_EQ(Client().Access(root_, 0x3F, &granted), Ok);
  EXPECT_EQ(granted, 0x3FU);
  EXPECT_EQ(Client().Access(root_, 0xFFFFFFFF, &granted), Ok);
  EXPECT_EQ(granted, 0xFFFFFFFFU);
}

TEST_P(NamespaceTest, CreateMakesAnEmptyFileOnTheHost) {
  bytes_t handle;
  ASSERT_EQ(Client().Create(root_, "new", &handle), Ok);
  EXPECT_TRUE(fs::is_regular_file(HostPath("new")));
  EXPECT_EQ(HandleOf("new"), handle);
}

TEST_P(NamespaceTest, UncheckedCreateOverAFileTruncatesItAndKeepsItsHandle) {
  WriteFile(HostPath("old"), "content");
  const bytes_t before = HandleOf("old");
  ASSERT_EQ(Client().Read(before, 0, 100).data, "content");
  bytes_t handle;
  ASSERT_EQ(Client().Create(root_, "old", &handle), Ok);
  EXPECT_EQ(handle, before);
  EXPECT_EQ(fs::file_size(HostPath("old")), 0U);
  EXPECT_EQ(Client().Read(before, 0, 100).data, "");
}

TEST_P(NamespaceTest, CreateUnderAnotherCaseWhileTheFileIsOpenIsTheSameFile) {
  WriteFile(HostPath("Mixed"), "content");
  const bytes_t before = HandleOf("Mixed");
  ASSERT_EQ(Client().Write(before, 0, "open"), Ok);
  bytes_t handle;
  ASSERT_EQ(Client().Create(root_, "mIXED", &handle), Ok);
  EXPECT_EQ(handle, before);
  EXPECT_EQ(std::distance(fs::directory_iterator(service_.Root()), fs::directory_iterator()), 1);
}

TEST_P(NamespaceTest, GuardedCreateOverAFileIs17) {
  WriteFile(HostPath("there"), "content");
  EXPECT_EQ(Client().Create(root_, "there", nullptr, 1), Exists);
  EXPECT_EQ(ReadFile(HostPath("there")), "content");
  EXPECT_EQ(Client().Create(root_, "not-there", nullptr, 1), Ok);
}

TEST_P(NamespaceTest, ExclusiveCreateIs10004EvenWhenTheNameIsFree) {
  EXPECT_EQ(Client().Create(root_, "free", nullptr, 2), NotSupported);
  EXPECT_FALSE(fs::exists(HostPath("free")));
}

TEST_P(NamespaceTest, CreateAppliesTheSizeAskedFor) {
  SSetAttributes values;
  values.size = 4096;
  ASSERT_EQ(Client().Create(root_, "sized", nullptr, 0, values), Ok);
  EXPECT_EQ(fs::file_size(HostPath("sized")), 4096U);
}

TEST_P(NamespaceTest, CreateWithoutANameIs22AndInAFile20) {
  WriteFile(HostPath("file"), "");
  EXPECT_EQ(Client().Create(root_, ""), Invalid);
  EXPECT_EQ(Client().Create(HandleOf("file"), "x"), NotFolder);
  EXPECT_EQ(Client().Create(bytes_t(23, '\x7f'), "x"), NoEntry);
}

TEST_P(NamespaceTest, MkdirMakesAFolderAndAnExistingOneIsFine) {
  bytes_t first;
  bytes_t second;
  ASSERT_EQ(Client().MkDir(root_, "folder", &first), Ok);
  EXPECT_TRUE(fs::is_directory(HostPath("folder")));
  EXPECT_EQ(Client().MkDir(root_, "folder", &second), Ok);
  EXPECT_EQ(first, second);
  EXPECT_EQ(Client().MkDir(root_, ""), Invalid);
  WriteFile(HostPath("file"), "");
  EXPECT_EQ(Client().MkDir(HandleOf("file"), "x"), NoEntry);
}

TEST_P(NamespaceTest, MkdirSendsTheNewFoldersAttributesAsTheParentsAfter) {
  const SReply reply = Client().Nfs().Call(NfsProgram, test::MkDir,
                                           CEncoder().Opaque(root_).Opaque("made").Raw(SSetAttributes{}.Encode()));
  CDecoder decoder(reply.body);
  ASSERT_EQ(decoder.U32(), 0U);
  ASSERT_EQ(decoder.U32(), 1U);
  const bytes_t handle = decoder.Opaque();
  ASSERT_EQ(decoder.U32(), 1U);
  const SAttributes object = DecodeAttributes(decoder);
  EXPECT_EQ(decoder.U32(), 0U);
  ASSERT_EQ(decoder.U32(), 1U);
  const SAttributes after = DecodeAttributes(decoder);
  EXPECT_TRUE(decoder.AtEnd());
  EXPECT_EQ(object.fileid, FidOf(handle));
  EXPECT_EQ(after.fileid, FidOf(handle));
}

TEST_P(NamespaceTest, RemoveDeletesAFileAndMakesItsHandleStale) {
  WriteFile(HostPath("gone"), "x");
  const bytes_t handle = HandleOf("gone");
  EXPECT_EQ(Client().Remove(root_, "gone"), Ok);
  EXPECT_FALSE(fs::exists(HostPath("gone")));
  EXPECT_EQ(Client().GetAttr(handle), Stale);
}

TEST_P(NamespaceTest, RemovingWhatIsNotThereSucceeds) {
  EXPECT_EQ(Client().Remove(root_, "nothing"), Ok);
  EXPECT_EQ(Client().RmDir(root_, "nothing"), Ok);
  EXPECT_EQ(Client().Remove(root_, ""), Invalid);
}

TEST_P(NamespaceTest, WhatIsRemovedThroughALinkToItsFolderAndMadeAnewIsMetUnderItsOwnPath) {
  fs::create_directory(HostPath("own"));
  fs::create_directory_symlink("own", HostPath("link"));
  WriteFile(HostPath("own/disk"), "first");
  const bytes_t disk = HandleOf("disk", HandleOf("own"));
  const bytes_t link = HandleOf("link");
  ASSERT_EQ(Client().Write(disk, 0, "FIRST"), Ok);
  ASSERT_EQ(Client().Remove(link, "disk"), Ok);
  EXPECT_EQ(Client().Read(disk, 0, 100).status, NoEntry);
  EXPECT_EQ(Client().Write(disk, 0, "lost"), NoEntry);
  ASSERT_EQ(Client().Create(link, "disk"), Ok);
  EXPECT_EQ(Client().Read(disk, 0, 100).data, "");
  EXPECT_EQ(Client().Write(disk, 0, "second"), Ok);
  EXPECT_EQ(ReadFile(HostPath("own/disk")), "second");
  EXPECT_EQ(Client().Read(disk, 0, 100).data, "second");
}

TEST_P(NamespaceTest, WhatIsReplacedThroughALinkToItsFolderIsMetUnderItsOwnPath) {
  fs::create_directory(HostPath("own"));
  fs::create_directory_symlink("own", HostPath("link"));
  WriteFile(HostPath("own/disk"), "first");
  WriteFile(HostPath("own/next"), "second");
  const bytes_t disk = HandleOf("disk", HandleOf("own"));
  const bytes_t link = HandleOf("link");
  ASSERT_EQ(Client().Read(disk, 0, 100).data, "first");
  ASSERT_EQ(Client().Rename(link, "next", link, "disk"), Ok);
  EXPECT_EQ(Client().Read(disk, 0, 100).data, "second");
  EXPECT_EQ(Client().Write(disk, 0, "SECOND"), Ok);
  EXPECT_EQ(ReadFile(HostPath("own/disk")), "SECOND");
}

TEST_P(NamespaceTest, RmdirDeletesAFolderWithAllBelow) {
  fs::create_directories(HostPath("tree/branch"));
  WriteFile(HostPath("tree/branch/leaf"), "x");
  const bytes_t tree = HandleOf("tree");
  const bytes_t leaf = HandleOf("leaf", HandleOf("branch", tree));
  ASSERT_EQ(Client().Read(leaf, 0, 10).data, "x");
  EXPECT_EQ(Client().RmDir(root_, "tree"), Ok);
  EXPECT_FALSE(fs::exists(HostPath("tree")));
  EXPECT_EQ(Client().GetAttr(leaf), Stale);
  EXPECT_EQ(Client().GetAttr(tree), Stale);
}

TEST_P(NamespaceTest, RmdirOfAFileIs20AndDeletesNothing) {
  WriteFile(HostPath("file"), "x");
  EXPECT_EQ(Client().RmDir(root_, "file"), NotFolder);
  EXPECT_TRUE(fs::exists(HostPath("file")));
}

TEST_P(NamespaceTest, DotAndDotDotAreNoNamesToMakeRemoveOrRename) {
  fs::create_directory(HostPath("sub"));
  WriteFile(HostPath("file"), "x");
  const bytes_t sub = HandleOf("sub");
  for (const char* name : {".", ".."}) {
    EXPECT_EQ(Client().Create(sub, name), Invalid) << name;
    EXPECT_EQ(Client().MkDir(sub, name), Invalid) << name;
    EXPECT_EQ(Client().Remove(sub, name), Invalid) << name;
    EXPECT_EQ(Client().RmDir(sub, name), Invalid) << name;
    EXPECT_EQ(Client().Rename(sub, name, root_, "target"), Invalid) << name;
    EXPECT_EQ(Client().Rename(root_, "file", sub, name), Invalid) << name;
  }
  EXPECT_TRUE(fs::exists(HostPath("sub")));
  EXPECT_TRUE(fs::exists(HostPath("file")));
}

TEST_P(NamespaceTest, RenameKeepsTheHandleAndReplacesTheTarget) {
  WriteFile(HostPath("source"), "source");
  WriteFile(HostPath("target"), "target");
  const bytes_t source = HandleOf("source");
  const bytes_t target = HandleOf("target");
  ASSERT_EQ(Client().Read(source, 0, 100).data, "source");
  ASSERT_EQ(Client().Rename(root_, "source", root_, "target"), Ok);
  EXPECT_EQ(ReadFile(HostPath("target")), "source");
  EXPECT_FALSE(fs::exists(HostPath("source")));
  EXPECT_EQ(HandleOf("target"), source);
  EXPECT_EQ(Client().Read(source, 0, 100).data, "source");
  EXPECT_EQ(Client().GetAttr(target), Stale);
  EXPECT_EQ(Client().Lookup(root_, "source"), NoEntry);
}

TEST_P(NamespaceTest, RenameOfAFolderKeepsTheHandlesBelowIt) {
  fs::create_directories(HostPath("before/inner"));
  WriteFile(HostPath("before/inner/file"), "deep");
  const bytes_t folder = HandleOf("before");
  const bytes_t file = HandleOf("file", HandleOf("inner", folder));
  ASSERT_EQ(Client().Rename(root_, "before", root_, "after"), Ok);
  EXPECT_EQ(Client().Read(file, 0, 100).data, "deep");
  EXPECT_EQ(Client().Write(file, 0, "DEEP"), Ok);
  EXPECT_EQ(ReadFile(HostPath("after/inner/file")), "DEEP");
  EXPECT_EQ(HandleOf("file", HandleOf("inner", HandleOf("after"))), file);
}

TEST_P(NamespaceTest, RenameAcrossFoldersMovesTheNodeAndItsHandleReadsTheFile) {
  fs::create_directories(HostPath("from"));
  fs::create_directories(HostPath("to"));
  WriteFile(HostPath("from/a"), "content");
  const bytes_t from = HandleOf("from");
  const bytes_t to = HandleOf("to");
  const bytes_t file = HandleOf("a", from);
  ASSERT_EQ(Client().Rename(from, "a", to, "b"), Ok);
  // The backend renames inside the source folder; only the catalogue moves the node.
  EXPECT_TRUE(fs::exists(HostPath("from/b")));
  EXPECT_EQ(Client().Read(file, 0, 100).data, "content");
  SAttributes attributes;
  EXPECT_EQ(Client().GetAttr(file, &attributes), Ok);
  EXPECT_EQ(attributes.size, 7U);
}

TEST_P(NamespaceTest, RenameOfWhatIsNotThereIs2) {
  EXPECT_EQ(Client().Rename(root_, "nothing", root_, "target"), NoEntry);
}

TEST_P(NamespaceTest, SetattrResizesAFileAndRefusesAFolder) {
  WriteFile(HostPath("file"), "0123456789");
  SSetAttributes values;
  values.size = 4;
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  EXPECT_EQ(ReadFile(HostPath("file")), "0123");
  values.size = 8;
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  EXPECT_EQ(ReadFile(HostPath("file")), std::string("0123\0\0\0\0", 8));
  EXPECT_EQ(Client().SetAttr(root_, values), Invalid);
}

TEST_P(NamespaceTest, SetattrWithNothingToSetStillAnswersBeforeAndAfter) {
  WriteFile(HostPath("file"), "x");
  const SReply reply = Client().Nfs().Call(NfsProgram, test::SetAttr,
                                           CEncoder().Opaque(HandleOf("file")).Raw(SSetAttributes{}.Encode()).U32(0));
  CDecoder decoder(reply.body);
  EXPECT_EQ(decoder.U32(), 0U);
  EXPECT_EQ(decoder.U32(), 1U);
  EXPECT_EQ(decoder.U64(), 1U);
  decoder.Fixed(16);
  EXPECT_EQ(decoder.U32(), 1U);
  EXPECT_EQ(DecodeAttributes(decoder).size, 1U);
  EXPECT_TRUE(decoder.AtEnd());
}

TEST_P(NamespaceTest, TheGuardOfSetattrIsTheChangeTimeAsSent) {
  WriteFile(HostPath("file"), "x");
  const bytes_t handle = HandleOf("file");
  SAttributes a;
  ASSERT_EQ(Client().GetAttr(handle, &a), Ok);
  SSetAttributes values;
  values.size = 2;
  EXPECT_EQ(Client().SetAttr(handle, values, std::make_pair(a.ctime[0] + 1, a.ctime[1])), NotSync);
  EXPECT_EQ(fs::file_size(HostPath("file")), 1U);
  EXPECT_EQ(Client().SetAttr(handle, values, std::make_pair(a.ctime[0], a.ctime[1])), Ok);
  EXPECT_EQ(fs::file_size(HostPath("file")), 2U);
}

TEST_P(NamespaceTest, AClientsTimeIsStoredByTheDescribedConversion) {
  WriteFile(HostPath("file"), "x");
  SSetAttributes values;
  values.mtimeHow = 2;
  values.mtime[0] = 1000000000;
  values.mtime[1] = 500;
  ASSERT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  struct stat status {};
  ASSERT_EQ(stat(HostPath("file").c_str(), &status), 0);
  // The epoch is added without scaling: 10^9 s in ticks, 5 ticks, and 11644473600 ticks, counted from 1601.
  const std::int64_t ticks = 10000000LL * 1000000000LL + 5 + 11644473600LL;
  // Some file systems clamp a time as old as that, so the same is set by hand beside it.
  WriteFile(HostPath("by-hand"), "x");
  const timespec expected{ticks / 10000000 - 11644473600LL, ticks % 10000000 * 100};
  const timespec times[2] = {expected, expected};
  ASSERT_EQ(utimensat(AT_FDCWD, HostPath("by-hand").c_str(), times, 0), 0);
  struct stat byHand {};
  ASSERT_EQ(stat(HostPath("by-hand").c_str(), &byHand), 0);
  EXPECT_EQ(status.st_mtim.tv_sec, byHand.st_mtim.tv_sec);
  EXPECT_EQ(status.st_mtim.tv_nsec, byHand.st_mtim.tv_nsec);
  EXPECT_LT(status.st_mtim.tv_sec, 0);
}

TEST_P(NamespaceTest, TimesOfAFolderCannotBeSetAndAnUnknownWayIs22) {
  SSetAttributes values;
  values.mtimeHow = 1;
  EXPECT_EQ(Client().SetAttr(root_, values), ServerFault);
  WriteFile(HostPath("file"), "x");
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  values.mtimeHow = 7;
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Invalid);
}

TEST_P(NamespaceTest, TheModeSetsAndClearsTheReadOnlyAttribute) {
  WriteFile(HostPath("file"), "x");
  SSetAttributes values;
  values.mode = 0400;
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  struct stat status {};
  ASSERT_EQ(stat(HostPath("file").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0222U, 0U);
  values.mode = 0600;
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  ASSERT_EQ(stat(HostPath("file").c_str(), &status), 0);
  EXPECT_NE(status.st_mode & 0200U, 0U);
}

TEST_P(NamespaceTest, OwnerAndGroupAreDecodedAndDropped) {
  WriteFile(HostPath("file"), "x");
  SSetAttributes values;
  values.uid = 77;
  values.gid = 78;
  EXPECT_EQ(Client().SetAttr(HandleOf("file"), values), Ok);
  SAttributes a;
  ASSERT_EQ(Client().GetAttr(HandleOf("file"), &a), Ok);
  EXPECT_EQ(a.uid, 1U);
  EXPECT_EQ(a.gid, 1U);
}

TEST_P(NamespaceTest, FsinfoSendsTheConstantsAlsoForAStaleHandle) {
  for (const bytes_t& handle : {root_, bytes_t(23, '\x55')}) {
    CDecoder decoder(Client().Nfs().Call(NfsProgram, test::FsInfo, CEncoder().Opaque(handle)).body);
    EXPECT_EQ(decoder.U32(), 0U);
    EXPECT_EQ(decoder.U32(), 0U);
    for (const std::uint32_t value : {131072U, 65536U, 512U, 131072U, 65536U, 512U, 1200U}) {
      EXPECT_EQ(decoder.U32(), value);
    }
    EXPECT_EQ(decoder.U64(), 70368744177664ULL);
    EXPECT_EQ(decoder.U32(), 0U);
    EXPECT_EQ(decoder.U32(), 1000000U);
    EXPECT_EQ(decoder.U32(), 16U);
    EXPECT_TRUE(decoder.AtEnd());
  }
}

TEST_P(NamespaceTest, FsstatTellsTheDiskAndTheSettledNumbersOfFiles) {
  const fs::space_info space = fs::space(service_.Root());
  CDecoder decoder(Client().Nfs().Call(NfsProgram, test::FsStat, CEncoder().Opaque(root_)).body);
  ASSERT_EQ(decoder.U32(), 0U);
  ASSERT_EQ(decoder.U32(), 1U);
  EXPECT_EQ(DecodeAttributes(decoder).type, 2U);
  EXPECT_EQ(decoder.U64(), space.capacity);
  const std::uint64_t free = decoder.U64();
  EXPECT_LE(free, space.capacity);
  EXPECT_EQ(decoder.U64(), free);
  EXPECT_EQ(decoder.U64(), 20U);
  EXPECT_EQ(decoder.U64(), 100U);
  EXPECT_EQ(decoder.U64(), 100U);
  EXPECT_EQ(decoder.U32(), 0U);
  EXPECT_TRUE(decoder.AtEnd());
}

TEST_P(NamespaceTest, FsstatOfAFileOrAnUnknownHandleIs2) {
  WriteFile(HostPath("file"), "x");
  for (const bytes_t& handle : {HandleOf("file"), bytes_t(23, '\x55')}) {
    CDecoder decoder(Client().Nfs().Call(NfsProgram, test::FsStat, CEncoder().Opaque(handle)).body);
    EXPECT_EQ(decoder.U32(), NoEntry);
    EXPECT_EQ(decoder.U32(), 0U);
    EXPECT_TRUE(decoder.AtEnd());
  }
}

}  // namespace
