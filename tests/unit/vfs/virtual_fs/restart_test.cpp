// What a restart of the service brings back.
#include <chrono>

#include "config/reg_config.h"
#include "virtual_fs_fixture.h"

namespace test {
namespace {

using AfterRestart = VirtualFsFixture;

const std::string ItemsCache = "SOFTWARE\\KelvO\\Kelvo NFS\\ItemsCache\\";

TEST_F(AfterRestart, HandlesOfFoldersAndFilesStay) {
  const auto folder = MakeFolder(root, "folder");
  const auto sub = MakeFolder(folder, "sub");
  const auto file = MakeFile(sub, "disk");
  const auto top = MakeFile(root, "top");
  ASSERT_EQ(Write(file, 0, "hello"), NFS3_OK);
  Restart();
  EXPECT_EQ(fs->GetShareHandle("vol"), HandleFromFid(root));
  EXPECT_EQ(Read(file), "hello");
  EXPECT_EQ(Write(top, 0, "x"), NFS3_OK);
  EXPECT_EQ(Find(root, "folder"), folder);
  EXPECT_EQ(Find(folder, "sub"), sub);
  EXPECT_EQ(Find(sub, "disk"), file);
  EXPECT_EQ(List(sub), std::vector<std::string>{"disk"});
}

TEST_F(AfterRestart, HandlesStayOverManyRestarts) {
  const auto file = MakeFile(MakeFolder(root, "folder"), "disk");
  for (int i = 0; i < 3; ++i) {
    Restart();
    EXPECT_EQ(GetAttrs(file).status, NFS3_OK);
  }
}

TEST_F(AfterRestart, AFileThatHasGoneIsNewWhenItReturns) {
  const auto file = MakeFile(root, "disk");
  std::filesystem::remove(local / "disk");
  Restart();
  EXPECT_EQ(GetAttrs(file).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(file)) << "stale entries are cleared at start";
  PutLocal("disk");
  EXPECT_NE(Find(root, "disk"), file);
}

TEST_F(AfterRestart, AFolderThatHasGoneTakesWhatIsBelowAlong) {
  const auto folder = MakeFolder(root, "folder");
  const auto file = MakeFile(folder, "disk");
  const auto other = MakeFile(root, "other");
  std::filesystem::remove_all(local / "folder");
  Restart();
  EXPECT_EQ(GetAttrs(folder).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(folder));
  EXPECT_FALSE(IsStored(file));
  EXPECT_EQ(GetAttrs(other).status, NFS3_OK);
}

TEST_F(AfterRestart, AFileInAFoldersPlaceDoesNotGetTheFoldersChildren) {
  const auto folder = MakeFolder(root, "x");
  const auto below = MakeFile(folder, "y");
  std::filesystem::remove_all(local / "x");
  PutLocal("x", "file");
  Restart();
  EXPECT_EQ(GetAttrs(below).status, NFS3ERR_STALE);
  EXPECT_EQ(Lookup(root, "x").attributes->type, NF3REG);
}

TEST_F(AfterRestart, AShareWhoseFolderWasDeletedIsEmptyUnderItsOldHandle) {
  MakeFile(root, "disk");
  std::filesystem::remove_all(local);
  Restart();
  EXPECT_EQ(GetAttrs(root).status, NFS3_OK);
  EXPECT_EQ(List(root), std::vector<std::string>{});
  EXPECT_TRUE(std::filesystem::is_directory(local));
}

TEST_F(AfterRestart, ARenamedItemStandsUnderItsOldName) {
  const auto fid = MakeFile(root, "a");
  ASSERT_EQ(Rename(root, "a", root, "b"), NFS3_OK);
  PutLocal("a", "someone made it while we were away");
  Restart();
  EXPECT_EQ(Find(root, "a"), fid);
}

TEST_F(AfterRestart, AHandleIsNeverThatOfAnItemMadeInItsOldPlace) {
  const auto fid = MakeFile(root, "a");
  ASSERT_EQ(Write(fid, 0, "first"), NFS3_OK);
  ASSERT_EQ(Rename(root, "a", root, "b"), NFS3_OK);
  const auto second = MakeFile(root, "a");
  ASSERT_EQ(Write(second, 0, "second"), NFS3_OK);
  Restart();
  EXPECT_EQ(Read(fid), "first");
  EXPECT_EQ(Read(second), "second");
  EXPECT_EQ(Find(root, "a"), second);
  EXPECT_EQ(Find(root, "b"), fid);
}

/// "status 70" or "status 2": the handle is known to be of nothing.
bool IsStale(const std::string& read) {
  return read == "status " + std::to_string(NFS3ERR_STALE) || read == "status " + std::to_string(NFS3ERR_NOENT);
}

TEST_F(AfterRestart, AHandleIsNeverThatOfAnItemMovedToItsOldPlace) {
  const auto first = MakeFile(root, "a");
  const auto second = MakeFile(root, "b");
  ASSERT_EQ(Write(first, 0, "first"), NFS3_OK);
  ASSERT_EQ(Write(second, 0, "second"), NFS3_OK);
  ASSERT_EQ(Rename(root, "a", root, "c"), NFS3_OK);
  ASSERT_EQ(Rename(root, "b", root, "a"), NFS3_OK);
  Restart();
  EXPECT_EQ(Read(first), "first");
  EXPECT_PRED1(IsStale, Read(second));
}

TEST_F(AfterRestart, NoHandleOfTwoThatSwappedNamesReadsTheOther) {
  const auto first = MakeFile(root, "a");
  const auto second = MakeFile(root, "b");
  ASSERT_EQ(Write(first, 0, "first"), NFS3_OK);
  ASSERT_EQ(Write(second, 0, "second"), NFS3_OK);
  ASSERT_EQ(Rename(root, "a", root, "swap"), NFS3_OK);
  ASSERT_EQ(Rename(root, "b", root, "a"), NFS3_OK);
  ASSERT_EQ(Rename(root, "swap", root, "b"), NFS3_OK);
  EXPECT_EQ(Read(first), "first");
  EXPECT_EQ(Read(second), "second");
  Restart();
  EXPECT_PRED1(IsStale, Read(first)) << "its stored name is that of the step between";
  EXPECT_EQ(Read(second), "second");
  EXPECT_EQ(Find(root, "a"), second);
  EXPECT_EQ(Read(Find(root, "b")), "first");
}

TEST_F(AfterRestart, NoFolderOfTwoThatSwappedNamesHasTheOthersFiles) {
  const auto first = MakeFolder(root, "a");
  const auto second = MakeFolder(root, "b");
  const auto firstFile = MakeFile(first, "disk");
  const auto secondFile = MakeFile(second, "disk");
  ASSERT_EQ(Write(firstFile, 0, "first"), NFS3_OK);
  ASSERT_EQ(Write(secondFile, 0, "second"), NFS3_OK);
  ASSERT_EQ(Rename(root, "a", root, "swap"), NFS3_OK);
  ASSERT_EQ(Rename(root, "b", root, "a"), NFS3_OK);
  ASSERT_EQ(Rename(root, "swap", root, "b"), NFS3_OK);
  Restart();
  EXPECT_PRED1(IsStale, Read(firstFile));
  EXPECT_EQ(Read(secondFile), "second");
}

TEST_F(AfterRestart, AnItemMovedAcrossFoldersIsNeverTheFileThatLiesThere) {
  const auto from = MakeFolder(root, "from");
  const auto to = MakeFolder(root, "to");
  const auto moved = MakeFile(from, "disk");
  ASSERT_EQ(Write(moved, 0, "moved"), NFS3_OK);
  ASSERT_EQ(Write(MakeFile(to, "disk"), 0, "beneath"), NFS3_OK);
  ASSERT_EQ(Rename(from, "disk", to, "disk"), NFS3_OK);
  EXPECT_EQ(Read(moved), "moved");
  const auto again = Find(from, "disk");
  Restart();
  EXPECT_PRED1(IsStale, Read(moved));
  EXPECT_EQ(Read(again), "moved");
}

TEST_F(AfterRestart, AnItemMovedAcrossFoldersReadsWhereItStillIs) {
  const auto from = MakeFolder(root, "from");
  const auto to = MakeFolder(root, "to");
  const auto moved = MakeFile(from, "disk");
  ASSERT_EQ(Write(moved, 0, "moved"), NFS3_OK);
  ASSERT_EQ(Rename(from, "disk", to, "disk"), NFS3_OK);
  Restart();
  EXPECT_EQ(Read(moved), "moved");
  EXPECT_EQ(Find(from, "disk"), moved);
}

TEST_F(AfterRestart, AnItemMovedAcrossFoldersIsNeverWhatIsMadeWhereItWasRemoved) {
  const auto from = MakeFolder(root, "from");
  const auto to = MakeFolder(root, "to");
  const auto moved = MakeFile(from, "a");
  const auto folder = MakeFolder(from, "folder");
  const auto below = MakeFile(folder, "x");
  ASSERT_EQ(Rename(from, "a", to, "b"), NFS3_OK);
  ASSERT_EQ(Rename(from, "folder", to, "folder"), NFS3_OK);
  ASSERT_EQ(Remove(from, "b"), NFS3_OK) << "where the file still lies";
  Find(from, "folder");
  ASSERT_EQ(RemoveDir(from, "folder"), NFS3_OK);
  const auto made = MakeFile(from, "b");
  const auto madeBelow = MakeFile(MakeFolder(from, "folder"), "x");
  ASSERT_EQ(Write(made, 0, "made"), NFS3_OK);
  ASSERT_EQ(Write(madeBelow, 0, "made"), NFS3_OK);
  for (int i = 0; i < 2; ++i) {
    EXPECT_PRED1(IsStale, Read(moved));
    EXPECT_PRED1(IsStale, Read(below));
    EXPECT_NE(Write(moved, 0, "lost"), NFS3_OK);
    EXPECT_EQ(Read(made), "made");
    EXPECT_EQ(Read(madeBelow), "made");
    Restart();
  }
}

TEST_F(AfterRestart, WhatAMoveAcrossFoldersReplacedInTheSourceFolderIsGone) {
  const auto from = MakeFolder(root, "from");
  const auto to = MakeFolder(root, "to");
  const auto moved = MakeFile(from, "a");
  const auto lost = MakeFile(from, "b");
  const auto older = MakeFile(from, "c");
  ASSERT_EQ(Write(moved, 0, "moved"), NFS3_OK);
  ASSERT_EQ(Write(lost, 0, "lost"), NFS3_OK);
  ASSERT_EQ(Rename(from, "a", to, "b"), NFS3_OK);
  EXPECT_PRED1(IsStale, Read(lost));
  ASSERT_EQ(Rename(from, "c", from, "d"), NFS3_OK);
  ASSERT_EQ(Write(older, 0, "older"), NFS3_OK);
  const auto other = MakeFile(from, "e");
  ASSERT_EQ(Write(other, 0, "other"), NFS3_OK);
  ASSERT_EQ(Rename(from, "e", to, "c"), NFS3_OK) << "on the disk it is from/c now";
  Restart();
  EXPECT_PRED1(IsStale, Read(lost));
  EXPECT_EQ(Read(older), "older");
}

TEST_F(AfterRestart, AHandleIsNeverThatOfAFileWhoseCreationFailedInItsOldPlace) {
  const auto fid = MakeFile(root, "a");
  ASSERT_EQ(Write(fid, 0, "first"), NFS3_OK);
  ASSERT_EQ(Rename(root, "a", root, "b"), NFS3_OK);
  sattr3 attributes;
  attributes.mtimeHow = 9;
  ASSERT_EQ(Create(root, "a", UNCHECKED, attributes).status, NFS3ERR_INVAL);
  ASSERT_TRUE(std::filesystem::exists(local / "a"));
  Restart();
  EXPECT_EQ(Read(fid), "first");
  EXPECT_NE(Find(root, "a"), fid);
}

TEST_F(AfterRestart, ARemovedItemStaysRemoved) {
  const auto folder = MakeFolder(root, "folder");
  const auto file = MakeFile(folder, "disk");
  ASSERT_EQ(RemoveDir(root, "folder"), NFS3_OK);
  Restart();
  EXPECT_EQ(GetAttrs(folder).status, NFS3ERR_STALE);
  EXPECT_EQ(GetAttrs(file).status, NFS3ERR_STALE);
}

TEST_F(AfterRestart, SharesThatShareAFolderKeepTheirRoots) {
  const auto second = CreateShare("second");
  const auto secondRoot = fs->ItemsTab()->GetShareFid(second);
  EXPECT_NE(secondRoot, root);
  Restart();
  EXPECT_EQ(fs->ItemsTab()->GetShareFid(second), secondRoot);
  EXPECT_EQ(fs->ItemsTab()->GetShareFid(shareUid), root);
}

TEST_F(AfterRestart, AShareWithoutItsRootEntryGetsANewRoot) {
  ASSERT_EQ(registry.DeleteKey(ItemsCache + std::to_string(root)), 0U);
  const auto file = MakeFile(root, "disk");
  Restart();
  EXPECT_NE(fs->ItemsTab()->GetShareFid(shareUid), root);
  EXPECT_EQ(GetAttrs(file).status, NFS3ERR_STALE);
  EXPECT_NE(Find(fs->ItemsTab()->GetShareFid(shareUid), "disk"), file);
}

TEST_F(AfterRestart, DamagedEntriesCostThemselvesAlone) {
  const auto good = MakeFile(root, "good");
  CRegConfig config;
  SFsItemSpec spec;
  spec.path = "anything";
  for (const std::string name : {"..", ".", "a/b", ""})
    config.SaveItem(root, name, 1000 + name.size(), spec);
  config.SaveItem(2000, "loop", 2001, spec);
  config.SaveItem(2001, "loop", 2000, spec);
  config.SaveItem(3000, "own parent", 3000, spec);
  config.SaveItem(root, "never", InvalidFid, spec);
  ASSERT_EQ(registry.SetText(ItemsCache + "no number", "itemName", "x"), 0U);
  ASSERT_EQ(registry.SetText(ItemsCache + "4000", "itemName", "no parent"), 0U);
  Restart();
  EXPECT_EQ(GetAttrs(good).status, NFS3_OK);
  EXPECT_EQ(List(root), std::vector<std::string>{"good"});
  for (const std::uint64_t fid : {1000, 1001, 1002, 1003, 2000, 2001, 3000})
    EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE) << fid;
}

TEST_F(AfterRestart, TwoEntriesForOnePlaceAreOneItem) {
  const auto fid = MakeFile(root, "disk");
  SFsItemSpec spec;
  spec.path = "disk";
  CRegConfig().SaveItem(root, "DISK", 77, spec);
  Restart();
  const auto found = Find(root, "disk");
  EXPECT_TRUE(found == fid || found == 77);
  EXPECT_EQ(GetAttrs(found == fid ? 77 : fid).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(found == fid ? 77 : fid));
}

TEST_F(AfterRestart, AnEntryOfAMountThatDidNotComeBackIsCleared) {
  const auto folder = MakeFolder(root, "backup");
  const auto mount = boost::make_shared<SFakeBackend>(Guid(7));
  mount->Put("disk", false);
  fs->ItemsTab()->MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
  const auto disk = Find(folder, "disk");
  EXPECT_TRUE(IsStored(disk));
  Restart();
  EXPECT_EQ(GetAttrs(folder).status, NFS3_OK);
  EXPECT_EQ(GetAttrs(disk).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(disk));
}

TEST_F(AfterRestart, TheRootFolderIsMade) {
  fs.reset();
  std::filesystem::remove_all(temp.Path() / "Kelvo" / "Backup");
  fs = std::make_unique<CVirtualFs>();
  EXPECT_TRUE(std::filesystem::is_directory(local));
}

TEST_F(AfterRestart, ARootFolderThatCannotBeMadeStopsTheStart) {
  fs.reset();
  std::filesystem::remove_all(temp.Path() / "Kelvo" / "Backup");
  std::ofstream(temp.Path() / "Kelvo" / "Backup") << "in the way";
  const std::string text = ThrownText([] { CVirtualFs second; });
  EXPECT_NE(text.find("Failed to initialize virtual file system."), std::string::npos);
}

TEST_F(AfterRestart, ManyItemsComeBackInSeconds) {
  constexpr int Folders = 20;
  constexpr int FilesEach = 1000;
  {
    // Stored as the service stores them, in one go.
    CRegConfig config;
    platform::registry_transaction_t transaction(registry);
    SFsItemSpec spec;
    for (std::uint64_t folder = 0; folder < Folders; ++folder) {
      const std::string folderName = "folder" + std::to_string(folder);
      std::filesystem::create_directory(local / folderName);
      spec.isFolder = true;
      spec.path = (local / folderName).string();
      config.SaveItem(root, folderName, 1000000 * (folder + 1), spec);
      spec.isFolder = false;
      for (std::uint64_t i = 0; i < FilesEach; ++i) {
        const std::string name = "file" + std::to_string(i);
        spec.path = (local / folderName / name).string();
        std::ofstream{spec.path};
        config.SaveItem(1000000 * (folder + 1), name, 1000000 * (folder + 1) + i + 1, spec);
      }
    }
    ASSERT_EQ(transaction.Commit(), 0U);
  }
  const auto begin = std::chrono::steady_clock::now();
  Restart();
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  RecordProperty("restart_seconds", std::to_string(time.count()));
  EXPECT_LT(time.count(), 60.0);
  EXPECT_EQ(Find(Find(root, "folder19"), "file999"), 20001000U);
  EXPECT_EQ(Find(Find(root, "folder0"), "file0"), 1000001U);
}

}  // namespace
}  // namespace test
