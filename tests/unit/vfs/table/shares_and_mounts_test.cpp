// Shares, and folders that mounts back too.
#include "table_fixture.h"

namespace test {
namespace {

using ItemsTabShares = TableFixture;
using ItemsTabMounts = TableFixture;

boost::shared_ptr<CNfsShareCfg> Cfg(const std::string& alias) {
  auto cfg = boost::make_shared<CNfsShareCfg>();
  cfg->nfsFolderName = alias;
  return cfg;
}

TEST_F(ItemsTabShares, ANewShareIsStoredWithItsRootFid) {
  EXPECT_NE(root, InvalidFid);
  EXPECT_EQ(sink->records[root].parentFid, InvalidFid);
  EXPECT_EQ(sink->records[root].name, "vol");
}

TEST_F(ItemsTabShares, AResumedShareHasItsFidAndIsNotStoredAnew) {
  const int writes = sink->writes;
  table.RegisterShare(Cfg("old"), Guid(2), MakeFolder("old"), 99);
  EXPECT_EQ(table.GetShareFid(Guid(2)), 99U);
  EXPECT_NE(table.GetItem(99), nullptr);
  EXPECT_EQ(sink->writes, writes);
}

TEST_F(ItemsTabShares, AnAliasIsOneInEverySpelling) {
  table.RegisterShare(Cfg("/Data/Machines"), Guid(2), MakeFolder("d"), InvalidFid);
  for (const char* alias : {"data\\machines", "\\DATA\\machines\\", "Data//Machines"}) {
    EXPECT_THROW(table.RegisterShare(Cfg(alias), Guid(3), MakeFolder("e"), InvalidFid), CNfsShareAlreadyRegisteredExc);
    GUID uid;
    EXPECT_TRUE(table.FindShareByAlias(alias, uid));
    EXPECT_EQ(uid, Guid(2));
  }
  GUID uid;
  EXPECT_FALSE(table.FindShareByAlias("data", uid));
  EXPECT_FALSE(table.FindShareByAlias("data/machines/x", uid));
}

TEST_F(ItemsTabShares, AUidIsRegisteredOnce) {
  const std::string text = ThrownText<CNfsShareAlreadyRegisteredExc>(
      [&] { table.RegisterShare(Cfg("other"), shareUid, MakeFolder("o"), InvalidFid); });
  EXPECT_NE(text.find("NFS share already registered. NFS mount point: [other]. Share UID: "
                      "[{00000000-0000-0000-0000-000000000001}]."),
            std::string::npos);
  EXPECT_NE(text.find("Failed to register NFS share in the items table. NFS mount path: [other]"), std::string::npos);
}

TEST_F(ItemsTabShares, AnUnregisteredShareIsGoneWithAllBelow) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  const auto file = table.AddItem(folder, "disk", MakeFile("folder/disk"));
  table.UnregisterShare(shareUid);
  for (const auto fid : {root, folder, file})
    EXPECT_EQ(table.GetItem(fid), nullptr);
  EXPECT_TRUE(sink->records.empty());
  std::set<GUID> uids;
  table.GetShareUids(uids);
  EXPECT_TRUE(uids.empty());
  EXPECT_NO_THROW(table.RegisterShare(cfg, shareUid, MakeFolder("again"), InvalidFid));
}

TEST_F(ItemsTabShares, AShareThatCouldNotBeTakenOutOfTheRegistryIsGoneWithTheNextAttempt) {
  table.AddItem(root, "file", MakeFile("file"));
  sink->isCommitBroken = true;
  EXPECT_THROW(table.UnregisterShare(shareUid), std::exception);
  sink->isCommitBroken = false;
  sink->isBroken = true;
  EXPECT_THROW(table.UnregisterShare(shareUid), std::exception);
  sink->isBroken = false;
  table.UnregisterShare(shareUid);
  EXPECT_THROW(table.GetShareFid(shareUid), std::exception);
  EXPECT_TRUE(sink->records.empty());
}

TEST_F(ItemsTabShares, UnregisteringAnUnknownShareIsNoFault) {
  EXPECT_NO_THROW(table.UnregisterShare(Guid(9)));
}

TEST_F(ItemsTabShares, SharesAreFoundByUidAndAlias) {
  EXPECT_EQ(table.GetShareFidByAlias("/VOL"), root);
  EXPECT_EQ(table.GetShareIdByAlias("vol/"), shareUid);
  std::uint64_t fid = 0;
  boost::shared_ptr<CNfsShareCfg> found;
  EXPECT_TRUE(table.GetShareCfg(shareUid, fid, found));
  EXPECT_EQ(fid, root);
  EXPECT_EQ(found, cfg);
  EXPECT_FALSE(table.GetShareCfg(Guid(9), fid, found));
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.GetShareFid(Guid(9)); }),
            "NFS share with ID [{00000000-0000-0000-0000-000000000009}] is not registered.");
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.GetShareFidByAlias("nothing"); }),
            "The specified NFS folder is not registered  (nothing).");
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.GetShareIdByAlias("nothing"); }),
            "The specified NFS folder is not registered  (nothing).");
}

class MountedFolder : public TableFixture {
 public:
  MountedFolder() {
    folder = table.AddItem(root, "backup", MakeFolder("backup"));
    hostFile = table.AddItem(folder, "notes", MakeFile("backup/notes"));
    table.MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
    mountFile = table.AddItem(folder, "disk", MakeMountFile(mount, "disk"));
  }

  const boost::shared_ptr<SFakeBackend> mount = boost::make_shared<SFakeBackend>(Guid(7));
  std::uint64_t folder = InvalidFid;
  std::uint64_t hostFile = InvalidFid;
  std::uint64_t mountFile = InvalidFid;
};

TEST_F(MountedFolder, IsBackedByBoth) {
  std::vector<boost::shared_ptr<IFsFolder>> mirrors;
  table.GetFolderMirrors(folder, mirrors);
  ASSERT_EQ(mirrors.size(), 2U);
  EXPECT_EQ(mirrors[0], table.GetItem(folder));
  EXPECT_EQ(mirrors[1], table.GetItemForMount(folder, Guid(7)));
  EXPECT_EQ(table.GetItemForMount(folder, Guid(8)), nullptr);
  table.GetFolderMirrors(4711, mirrors);
  EXPECT_TRUE(mirrors.empty());
}

TEST_F(MountedFolder, AFileBelongsToItsMountAlone) {
  EXPECT_EQ(table.GetItemForMount(mountFile, Guid(7)), table.GetItem(mountFile));
  EXPECT_EQ(table.GetItemForMount(mountFile, Guid(8)), nullptr);
  EXPECT_EQ(table.GetItemForMount(hostFile, Guid(7)), nullptr);
  EXPECT_EQ(table.GetItemForMount(hostFile, GUID{}), nullptr);
  EXPECT_EQ(table.GetItemForMount(4711, Guid(7)), nullptr);
}

TEST_F(MountedFolder, ListsTheChildrenOfAMount) {
  CNfsNameMap children;
  table.ListChildrenForMount(folder, Guid(7), children);
  EXPECT_EQ(children, (CNfsNameMap{{"disk", mountFile}}));
  std::set<std::uint64_t> fids;
  table.ListChildFidsForMount(folder, Guid(7), fids);
  EXPECT_EQ(fids, std::set<std::uint64_t>{mountFile});
  EXPECT_EQ(Children(folder).size(), 2U);
}

TEST_F(MountedFolder, AsksAFileNothingUnderTheLock) {
  const int questions = mount->specQuestions + host->specQuestions;
  CNfsNameMap children;
  table.ListChildrenForMount(folder, Guid(7), children);
  table.GetItemForMount(mountFile, Guid(7));
  EXPECT_EQ(mount->specQuestions + host->specQuestions, questions);
}

TEST_F(MountedFolder, IsStoredWithBothBackings) {
  const auto& backings = sink->records[folder].backings;
  EXPECT_EQ(backings.size(), 2U);
  EXPECT_TRUE(backings.contains(GUID{}));
  EXPECT_TRUE(backings.contains(Guid(7)));
}

TEST_F(MountedFolder, KeepsItsStoredAddressListWhenMounted) {
  const auto item = MakeFolder("restricted");
  host->Put("restricted", true)->allowedHostAddr = "10.0.0.1";
  const auto fid = table.AddItem(root, "restricted", item);
  table.MountMirroredFolder(fid, Guid(7), CFakeFolder::Root(mount));
  EXPECT_EQ(sink->records[fid].backings.at(Guid(7)).allowedHostAddr, "10.0.0.1");
}

TEST_F(MountedFolder, LosesTheMountAndNothingElse) {
  table.RemoveItemForMount(folder, Guid(7));
  std::vector<boost::shared_ptr<IFsFolder>> mirrors;
  table.GetFolderMirrors(folder, mirrors);
  EXPECT_EQ(mirrors.size(), 1U);
  EXPECT_EQ(table.LookupChild(root, "backup"), folder);
  EXPECT_EQ(Children(folder).size(), 2U);
  ASSERT_TRUE(sink->records.contains(folder));
  EXPECT_FALSE(sink->records[folder].backings.contains(Guid(7)));
  EXPECT_TRUE(sink->records[folder].backings.contains(GUID{}));
}

TEST_F(MountedFolder, IsNotTouchedByTheEndOfAnotherMount) {
  table.RemoveItemForMount(folder, Guid(8));
  EXPECT_NE(table.GetItemForMount(folder, Guid(7)), nullptr);
  EXPECT_EQ(Children(folder).size(), 2U);
}

TEST_F(MountedFolder, KeepsTheMountWhenItIsMadeOnceMore) {
  const auto again = MakeFolder("backup");
  EXPECT_EQ(table.AddItem(root, "BACKUP", again), folder);
  EXPECT_EQ(table.GetItem(folder), again);
  EXPECT_NE(table.GetItemForMount(folder, Guid(7)), nullptr);
}

TEST_F(MountedFolder, HasOneBackingOfAMount) {
  const auto renewed = CFakeFolder::Root(mount);
  table.MountMirroredFolder(folder, Guid(7), renewed);
  std::vector<boost::shared_ptr<IFsFolder>> mirrors;
  table.GetFolderMirrors(folder, mirrors);
  EXPECT_EQ(mirrors.size(), 2U);
  EXPECT_EQ(table.GetItemForMount(folder, Guid(7)), renewed);
}

TEST_F(MountedFolder, AFolderThatOnlyAMountBacksGoesWithIt) {
  mount->Put("sub/inner", false);
  const auto sub = table.AddItem(folder, "sub", boost::make_shared<CFakeFolder>(mount, mount->Put("sub", true), "sub"));
  const auto inner = table.AddItem(sub, "inner", MakeMountFile(mount, "sub/inner"));
  table.RemoveItemForMount(sub, Guid(7));
  EXPECT_EQ(table.GetItem(sub), nullptr);
  EXPECT_EQ(table.GetItem(inner), nullptr);
  EXPECT_FALSE(sink->records.contains(sub));
}

TEST_F(MountedFolder, AFileOfAMountGoesWithIt) {
  table.RemoveItemForMount(mountFile, Guid(7));
  EXPECT_EQ(table.GetItem(mountFile), nullptr);
  EXPECT_EQ(ThrownStatus([&] { table.RemoveItemForMount(mountFile, Guid(7)); }), NFS3ERR_NOENT);
}

TEST_F(MountedFolder, AMountThatCannotBeStoredIsNotAdded) {
  sink->isBroken = true;
  const auto other = boost::make_shared<SFakeBackend>(Guid(8));
  EXPECT_THROW(table.MountMirroredFolder(folder, Guid(8), CFakeFolder::Root(other)), exc::win_sys_exc_t);
  EXPECT_EQ(table.GetItemForMount(folder, Guid(8)), nullptr);
  const auto before = table.GetItemForMount(folder, Guid(7));
  EXPECT_THROW(table.MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount)), exc::win_sys_exc_t);
  EXPECT_EQ(table.GetItemForMount(folder, Guid(7)), before);
}

TEST_F(MountedFolder, AnItemOfAMountThatDoesNotBackTheFolderIsNotAdded) {
  const auto other = boost::make_shared<SFakeBackend>(Guid(8));
  const int writes = sink->writes;
  EXPECT_EQ(table.AddItem(folder, "stray", MakeMountFile(other, "stray")), InvalidFid);
  EXPECT_EQ(table.AddFoundItem(folder, "stray", MakeMountFile(other, "stray")), InvalidFid);
  EXPECT_EQ(table.AddItem(root, "disk", MakeMountFile(mount, "disk")), InvalidFid) << "nor beside its folder";
  EXPECT_EQ(table.LookupChild(folder, "stray"), InvalidFid);
  EXPECT_EQ(table.LookupChild(root, "disk"), InvalidFid);
  EXPECT_EQ(sink->writes, writes);
}

TEST_F(MountedFolder, AnItemOpenedBeforeItsMountWasWithdrawnIsNotAdded) {
  const auto opened = MakeMountFile(mount, "late");
  const auto openedFolder = boost::make_shared<CFakeFolder>(mount, mount->Put("sub", true), "sub");
  table.RemoveItemForMount(folder, Guid(7));
  EXPECT_EQ(table.AddFoundItem(folder, "late", opened), InvalidFid);
  EXPECT_EQ(table.AddFoundItem(folder, "sub", openedFolder), InvalidFid);
  EXPECT_EQ(table.AddItem(folder, "notes", opened), InvalidFid);
  EXPECT_EQ(table.LookupChild(folder, "notes"), hostFile) << "what is there stays";
  EXPECT_NE(table.GetItem(hostFile), opened);
}

TEST_F(MountedFolder, AnItemOpenedBeforeItsMountWasReplacedIsNotAdded) {
  const auto opened = MakeMountFile(mount, "late");
  const auto before = table.GetItemForMount(folder, Guid(7));
  const auto* const replaced = dynamic_cast<IFsFolder*>(before.get());
  const auto after = CFakeFolder::Root(mount);
  table.MountMirroredFolder(folder, Guid(7), after);
  EXPECT_EQ(table.AddFoundItem(folder, "late", opened, replaced), InvalidFid);
  std::vector<SNfsChild> items{{"late", InvalidFid, opened}};
  table.AddItems(folder, items, replaced);
  EXPECT_EQ(items.front().fid, InvalidFid);
  EXPECT_NE(table.AddFoundItem(folder, "late", opened, after.get()), InvalidFid);
}

TEST_F(MountedFolder, WhatIsNotAddedWithOthersHasNeitherFidNorItem) {
  const auto other = boost::make_shared<SFakeBackend>(Guid(8));
  std::vector<SNfsChild> items{{"one", InvalidFid, MakeMountFile(mount, "one")},
                               {"stray", InvalidFid, MakeMountFile(other, "stray")},
                               {"of the host", InvalidFid, MakeFile("backup/of the host")},
                               {"two", InvalidFid, MakeMountFile(mount, "two")}};
  const auto hostItem = items[2].item;
  table.AddItems(folder, items);
  ASSERT_EQ(items.size(), 4U);
  EXPECT_EQ(items[0].fid, table.LookupChild(folder, "one"));
  EXPECT_NE(items[0].fid, InvalidFid);
  EXPECT_EQ(items[0].item, table.GetItem(items[0].fid));
  EXPECT_EQ(items[1].fid, InvalidFid);
  EXPECT_EQ(items[1].item, nullptr);
  EXPECT_EQ(items[2].item, hostItem) << "hosts' items need no mount";
  EXPECT_NE(items[3].fid, InvalidFid);
  EXPECT_EQ(table.LookupChild(folder, "stray"), InvalidFid);
  EXPECT_EQ(Children(folder).size(), 5U);
}

TEST_F(MountedFolder, WhatIsInAFolderOfTheMountIsAdded) {
  const auto sub = table.AddItem(folder, "sub", boost::make_shared<CFakeFolder>(mount, mount->Put("sub", true), "sub"));
  ASSERT_NE(sub, InvalidFid);
  EXPECT_NE(table.AddItem(sub, "inner", MakeMountFile(mount, "sub/inner")), InvalidFid);
}

TEST_F(MountedFolder, ItsDotsAreNoItemsOfAMount) {
  const auto opened = MakeMountFile(boost::make_shared<SFakeBackend>(Guid(8)), "x");
  EXPECT_EQ(table.AddItem(folder, ".", opened), folder);
  EXPECT_EQ(table.AddItem(folder, "..", opened), root);
}

TEST_F(MountedFolder, OnlyAFolderCanBeMountedOn) {
  EXPECT_EQ(ThrownText<CVirtualFsExc>([&] { table.MountMirroredFolder(4711, Guid(8), CFakeFolder::Root(mount)); }),
            "Folder with FID [4711] does not exists. Cannot mount mirrored sub-folder.");
  EXPECT_EQ(
      ThrownText<exc::runtime_exc_t>([&] { table.MountMirroredFolder(hostFile, Guid(8), CFakeFolder::Root(mount)); }),
      "Item [notes] is not folder. Parent FID: [" + std::to_string(folder) + "].");
}

}  // namespace
}  // namespace test
