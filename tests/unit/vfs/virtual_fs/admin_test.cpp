// Shares and folders, and what the lock refuses.
#include "config/reg_config.h"
#include "hostfs/host_fs_folder.h"
#include "vfs/table/host_folder_path.h"
#include "virtual_fs_fixture.h"

namespace test {
namespace {

using Administration = VirtualFsFixture;

TEST_F(Administration, ANewShareIsPublishedAndStored) {
  EXPECT_EQ(fs->GetShareHandle("/VOL"), HandleFromFid(root));
  EXPECT_EQ(fs->GetShareId("vol"), shareUid);
  const auto cfg = fs->GetShareCfgCopy(shareUid);
  EXPECT_EQ(cfg->nfsFolderName, "vol");
  EXPECT_EQ(cfg->localPath, local.string());
  SRegConfigData stored;
  CRegConfig().Load(stored);
  ASSERT_TRUE(stored.shares.contains(shareUid));
  EXPECT_EQ(stored.shares[shareUid]->nfsFolderName, "vol");
}

TEST_F(Administration, ACopyIsACopy) {
  fs->GetShareCfgCopy(shareUid)->nfsFolderName = "changed";
  EXPECT_EQ(fs->GetShareCfgCopy(shareUid)->nfsFolderName, "vol");
}

TEST_F(Administration, AShareMakesItsFolder) {
  auto cfg = boost::make_shared<CNfsShareCfg>();
  cfg->nfsFolderName = "deep";
  cfg->localPath = (local / "made/with/parents").string();
  fs->CreateShare(cfg);
  EXPECT_TRUE(std::filesystem::is_directory(local / "made/with/parents"));
}

TEST_F(Administration, AnAliasIsPublishedOnce) {
  const std::string text = ThrownText<CNfsShareAlreadyRegisteredExc>([&] { CreateShare("\\Vol\\"); });
  EXPECT_NE(text.find("Failed to mount share [\\Vol\\] ( local path: [" + local.string() + "])"), std::string::npos);
  EXPECT_NE(
      text.find("Failed to create NFS share. NFS folder path: [\\Vol\\]. Local folder name: [" + local.string() + "]."),
      std::string::npos);
}

TEST_F(Administration, UnknownSharesAreToldApart) {
  EXPECT_EQ(ThrownText([&] { fs->GetShareHandle("nothing"); }),
            "The specified NFS folder is not registered  (nothing).");
  EXPECT_EQ(ThrownText([&] { fs->GetShareId("nothing"); }), "The specified NFS folder is not registered  (nothing).");
  EXPECT_EQ(ThrownText([&] { fs->GetShareCfgCopy(Guid(9)); }),
            "NFS shared folder with ID \"{00000000-0000-0000-0000-000000000009}\" is not registered or disconnected.");
}

TEST_F(Administration, ADismountedShareKeepsItsFiles) {
  const auto fid = MakeFile(root, "disk");
  fs->DismountShare(shareUid);
  EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE);
  EXPECT_EQ(GetAttrs(root).status, NFS3ERR_STALE);
  EXPECT_TRUE(std::filesystem::exists(local / "disk"));
  EXPECT_FALSE(IsStored(root));
  EXPECT_NO_THROW(fs->DismountShare(shareUid));
  Restart();
  EXPECT_THROW(fs->GetShareHandle("vol"), exc::runtime_exc_t);
}

TEST_F(Administration, AFolderIsMadeLevelByLevel) {
  EXPECT_EQ(fs->CreateHostFolder(shareUid, "a\\b//c", ""), (local / "a/b/c").string());
  EXPECT_TRUE(std::filesystem::is_directory(local / "a/b/c"));
  const auto a = Find(root, "a");
  const auto c = Find(Find(a, "b"), "c");
  EXPECT_EQ(fs->CreateHostFolder(shareUid, "A/b/c/d", ""), (local / "a/b/c/d").string());
  EXPECT_EQ(Find(root, "a"), a);
  EXPECT_EQ(Find(Find(a, "b"), "c"), c);
  EXPECT_EQ(fs->CreateHostFolder(shareUid, "", ""), local.string());
}

TEST_F(Administration, AFolderIsForItsHostAlone) {
  fs->CreateHostFolder(shareUid, "private", "10.0.0.2");
  EXPECT_EQ(Lookup(root, "private").status, NFS3ERR_ACCES);
  EXPECT_EQ(List(root), std::vector<std::string>{});
  client = Client("10.0.0.2");
  const auto fid = Find(root, "private");
  const auto sub = MakeFolder(fid, "sub");
  client = Client("10.0.0.1");
  EXPECT_EQ(GetAttrs(sub).status, NFS3ERR_ACCES);
  Restart();
  EXPECT_EQ(GetAttrs(sub).status, NFS3ERR_ACCES) << "the list survives a restart";
  client = Client("10.0.0.2");
  EXPECT_EQ(GetAttrs(sub).status, NFS3_OK);
}

TEST_F(Administration, NothingIsMadeOrDeletedOutsideTheShare) {
  PutLocal("../outside/keep", "keep");
  for (const std::string path : {"..", "a/../..", "../outside", "."}) {
    EXPECT_THROW(fs->CreateHostFolder(shareUid, path, ""), CVirtualFsExc) << path;
    EXPECT_THROW(fs->DeleteHostFolder(shareUid, path), CVirtualFsExc) << path;
  }
  EXPECT_EQ(GetLocal("../outside/keep"), "keep");
  EXPECT_EQ(List(root), std::vector<std::string>{});
}

TEST_F(Administration, FoldersOfAnUnknownShare) {
  const std::string uid = platform::GuidToText(Guid(9));
  EXPECT_EQ(ThrownText([&] { fs->CreateHostFolder(Guid(9), "a", ""); }),
            "There is no NFS folder with UID [" + uid + "].\nFailed to create folder. NFS share ID: [" + uid +
                "]. Folder relative path: [a].");
  EXPECT_EQ(ThrownText([&] { fs->DeleteHostFolder(Guid(9), "a"); }),
            "There is no NFS folder with UID [" + uid + "].\nFailed to remove folder. NFS share ID: [" + uid +
                "]. Folder relative path: [a].");
}

TEST_F(Administration, ADeletedFolderGoesWithAllBelow) {
  const auto folder = MakeFolder(root, "a");
  const auto fid = MakeFile(folder, "disk");
  ASSERT_EQ(Write(fid, 0, "x"), NFS3_OK);
  PutLocal("a/unknown/file");
  fs->DeleteHostFolder(shareUid, "a");
  EXPECT_FALSE(std::filesystem::exists(local / "a"));
  EXPECT_EQ(GetAttrs(folder).status, NFS3ERR_STALE);
  EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE);
}

TEST_F(Administration, AFolderThatNobodyHasSeenIsDeletedToo) {
  PutLocal("a/b/file");
  fs->DeleteHostFolder(shareUid, "A\\B");
  EXPECT_TRUE(std::filesystem::exists(local / "a"));
  EXPECT_FALSE(std::filesystem::exists(local / "a/b"));
}

TEST_F(Administration, AFolderRemovedByHandIsDroppedFromTheTable) {
  const auto folder = MakeFolder(root, "a");
  const auto sub = MakeFolder(folder, "b");
  std::filesystem::remove_all(local / "a");
  EXPECT_NO_THROW(fs->DeleteHostFolder(shareUid, "a/b"));
  EXPECT_EQ(GetAttrs(folder).status, NFS3ERR_STALE);
  EXPECT_EQ(GetAttrs(sub).status, NFS3ERR_STALE);
  EXPECT_NO_THROW(fs->DeleteHostFolder(shareUid, "never/was"));
}

TEST_F(Administration, AnEmptyPathDoesNotDeleteTheShare) {
  PutLocal("disk", "keep");
  EXPECT_THROW(fs->DeleteHostFolder(shareUid, ""), exc::runtime_exc_t);
  EXPECT_THROW(fs->DeleteHostFolder(shareUid, "//"), exc::runtime_exc_t);
  EXPECT_EQ(GetLocal("disk"), "keep");
}

TEST_F(Administration, AFileIsNoFolderToDelete) {
  PutLocal("disk", "keep");
  EXPECT_THROW(fs->DeleteHostFolder(shareUid, "disk"), exc::runtime_exc_t);
  EXPECT_EQ(GetLocal("disk"), "keep");
}

TEST_F(Administration, OnlyAFolderOfTheHostIsOne) {
  const auto& table = *fs->ItemsTab();
  EXPECT_EQ(GetHostFolder(table, root)->LocalPath(), local.string());
  const auto file = MakeFile(root, "disk");
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { GetHostFolder(table, file); }),
            "NFS item [" + table.GetItemPath(file) + "] does not refer to local folder.");
  const auto fake = PublishFake(boost::make_shared<SFakeBackend>());
  EXPECT_THROW(GetHostFolder(table, fake), exc::runtime_exc_t);
  EXPECT_THROW(GetHostFolder(table, 4711), CVirtualFsExc);
}

TEST_F(Administration, APathIsFollowedOnTheDisk) {
  auto& table = *fs->ItemsTab();
  PutLocal("a/b/disk");
  EXPECT_EQ(SyncHostFolderPath(table, Guid(9), "a"), InvalidFid);
  EXPECT_EQ(SyncHostFolderPath(table, shareUid, ""), root);
  const auto file = SyncHostFolderPath(table, shareUid, "/a\\b/disk");
  EXPECT_EQ(file, Find(Find(Find(root, "a"), "b"), "disk"));
  EXPECT_TRUE(IsStored(file));
  EXPECT_EQ(SyncHostFolderPath(table, shareUid, "a/b/disk/below"), InvalidFid);
  std::filesystem::remove(local / "a/b/disk");
  EXPECT_EQ(SyncHostFolderPath(table, shareUid, "a/b/disk"), InvalidFid);
  EXPECT_EQ(GetAttrs(file).status, NFS3ERR_STALE);
}

TEST_F(Administration, TheLockStopsAdministrationAndNotTheClients) {
  const auto fid = MakeFile(root, "disk");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  fs->Lock();
  const std::string locked = "Virtual file system is locked.";
  EXPECT_EQ(ThrownText([&] { CreateShare("new"); }), locked);
  EXPECT_EQ(ThrownText([&] { fs->DismountShare(shareUid); }), locked);
  EXPECT_EQ(ThrownText([&] { fs->CreateHostFolder(shareUid, "a", ""); }), locked);
  EXPECT_EQ(ThrownText([&] { fs->DeleteHostFolder(shareUid, "a"); }), locked);
  EXPECT_EQ(ThrownText([&] { fs->GetShareCfgCopy(shareUid); }), locked);
  EXPECT_EQ(ThrownText([&] { fs->GetShareId("vol"); }), locked);
  EXPECT_EQ(fs->GetShareHandle("vol"), HandleFromFid(root));
  EXPECT_NO_THROW(fs->ClearItemsCache());
  EXPECT_EQ(Read(fid), "hello");
  EXPECT_EQ(Write(fid, 0, "H"), NFS3_OK);
}

TEST_F(Administration, WithoutMountsThereAreNoLocks) {
  MakeFolder(MakeFolder(root, "a"), "b");
  EXPECT_TRUE(fs->EnumLocks().empty());
}

}  // namespace
}  // namespace test
