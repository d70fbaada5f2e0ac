// Items: adding, finding, moving, removing.
#include <functional>
#include <set>
#include <thread>
#include <utility>

#include "table_fixture.h"

namespace test {
namespace {

using FsItemsTab = TableFixture;

TEST_F(FsItemsTab, DotIsTheFolderItselfWhetherItExistsOrNot) {
  EXPECT_EQ(table.LookupChild(root, "."), root);
  EXPECT_EQ(table.LookupChild(4711, "."), 4711U);
  EXPECT_EQ(table.AddItem(4711, ".", MakeFile("x")), 4711U);
  EXPECT_EQ(table.LookupChild(root, "x"), InvalidFid);
}

TEST_F(FsItemsTab, DotDotIsTheParent) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  EXPECT_EQ(table.LookupChild(folder, ".."), root);
  EXPECT_EQ(table.AddItem(folder, "..", MakeFile("x")), root);
  EXPECT_TRUE(Children(folder).empty());
}

TEST_F(FsItemsTab, DotDotOfARootAndOfAnUnknownFolderIsNothing) {
  EXPECT_EQ(table.LookupChild(root, ".."), InvalidFid);
  EXPECT_EQ(table.LookupChild(4711, ".."), InvalidFid);
  EXPECT_EQ(ThrownStatus([&] { table.AddItem(4711, "..", MakeFile("x")); }), NFS3ERR_NOENT);
}

TEST_F(FsItemsTab, AnItemIsFoundByNameAndByFid) {
  const auto file = MakeFile("disk");
  const auto fid = table.AddItem(root, "disk", file);
  EXPECT_NE(fid, InvalidFid);
  EXPECT_EQ(table.LookupChild(root, "disk"), fid);
  EXPECT_EQ(table.LookupChild(root, "DISK"), fid);
  EXPECT_EQ(table.LookupChild(root, "dis"), InvalidFid);
  EXPECT_EQ(table.GetItem(fid), file);
  EXPECT_EQ(table.GetItem(4711), nullptr);
  EXPECT_EQ(table.GetItemPath(fid), "vol/disk. FID: " + std::to_string(fid));
  EXPECT_EQ(table.GetItemPath(4711), ". FID: 4711");
}

TEST_F(FsItemsTab, ANewItemIsStored) {
  const auto fid = table.AddItem(root, "disk", MakeFile("disk"));
  ASSERT_TRUE(sink->records.contains(fid));
  const auto& record = sink->records[fid];
  EXPECT_EQ(record.parentFid, root);
  EXPECT_EQ(record.name, "disk");
  ASSERT_TRUE(record.backings.contains(GUID{}));
  EXPECT_EQ(record.backings.at(GUID{}).path, "disk");
}

TEST_F(FsItemsTab, ANameInAnotherCaseKeepsTheFidAndTakesTheNewSpelling) {
  const auto fid = table.AddItem(root, "Disk", MakeFile("Disk"));
  const auto second = MakeFile("DISK");
  EXPECT_EQ(table.AddItem(root, "DISK", second), fid);
  EXPECT_EQ(table.GetItem(fid), second);
  const auto children = Children(root);
  ASSERT_EQ(children.size(), 1U);
  EXPECT_EQ(children.begin()->first, "DISK");
  EXPECT_EQ(sink->records[fid].name, "DISK");
  EXPECT_EQ(table.GetItemPath(fid), "vol/DISK. FID: " + std::to_string(fid));
}

TEST_F(FsItemsTab, AddingToAnUnknownFolderIsNotFound) {
  EXPECT_EQ(ThrownText<CVirtualFsExc>([&] { table.AddItem(4711, "disk", MakeFile("disk")); }),
            "Item with FID [4711] does not exist");
  EXPECT_EQ(ThrownStatus([&] { table.AddItem(4711, "disk", MakeFile("disk")); }), NFS3ERR_NOENT);
}

TEST_F(FsItemsTab, AnItemThatIsNeitherFileNorFolderIsRefused) {
  class CNeither : public CFakeItem<IFsItem> {
   public:
    using CFakeItem::CFakeItem;
  };
  const auto item = boost::make_shared<CNeither>(host, host->Put("odd", false), "odd");
  EXPECT_EQ(ThrownText([&] { table.AddItem(root, "odd", item); }), "Unexpected type of the FS item");
  EXPECT_EQ(table.LookupChild(root, "odd"), InvalidFid);
}

TEST_F(FsItemsTab, FidsAreUniqueAndNeverInvalid) {
  std::set<std::uint64_t> fids{root};
  for (int i = 0; i < 2000; ++i) {
    const std::string name = "f" + std::to_string(i);
    const auto fid = table.AddItem(root, name, MakeFile(name));
    EXPECT_NE(fid, InvalidFid);
    EXPECT_TRUE(fids.insert(fid).second);
  }
}

TEST_F(FsItemsTab, ManyItemsComeInWithFewTransactions) {
  std::vector<SNfsChild> items;
  for (int i = 0; i < 1000; ++i) {
    const std::string name = "f" + std::to_string(i);
    items.push_back({name, InvalidFid, MakeFile(name)});
  }
  table.AddItems(root, items);
  for (const auto& item : items)
    EXPECT_EQ(table.LookupChild(root, item.name), item.fid);
  EXPECT_EQ(sink->records.size(), 1001U);
  EXPECT_LE(sink->batches, 10);
}

TEST_F(FsItemsTab, ItemsThatCameInMeanwhileAreThoseOfTheTable) {
  const auto older = MakeFile("disk");
  const auto fid = table.AddItem(root, "disk", older);
  std::vector<SNfsChild> items{{"DISK", InvalidFid, MakeFile("disk")}, {"new", InvalidFid, MakeFile("new")}};
  table.AddItems(root, items);
  EXPECT_EQ(items[0].fid, fid);
  EXPECT_EQ(items[0].item, older);
  EXPECT_EQ(items[1].item, table.GetItem(items[1].fid));
}

TEST_F(FsItemsTab, AllChildrenOfALargeFolderAreListedInOrder) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  table.AddItem(root, "g", MakeFile("g"));
  const auto item = MakeFile("folder/x");
  for (const int count : {4096, 4097, 10000}) {
    std::vector<SNfsChild> items;
    for (int i = 0; i < count; ++i)
      items.push_back({(i % 2 == 0 ? "f" : "F") + std::to_string(i), InvalidFid, item});
    table.AddItems(folder, items);
    std::vector<SNfsChild> children{{"left over", 1, item}};
    table.ListChildren(folder, children);
    ASSERT_EQ(children.size(), static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < children.size(); ++i) {
      ASSERT_EQ(children[i].fid, table.LookupChild(folder, children[i].name));
      ASSERT_EQ(children[i].item, item);
      ASSERT_TRUE(i == 0 || platform::CompareIgnoringCase(children[i - 1].name, children[i].name) < 0);
    }
  }
}

TEST_F(FsItemsTab, AWriteThatFailsLeavesTheItemInTheTable) {
  sink->isBroken = true;
  EXPECT_THROW(table.AddItem(root, "disk", MakeFile("disk")), exc::win_sys_exc_t);
  EXPECT_NE(table.LookupChild(root, "disk"), InvalidFid);
}

TEST_F(FsItemsTab, AnItemThatCouldNotBeStoredIsStoredBeforeItsHandleIsGivenOut) {
  sink->isBroken = true;
  EXPECT_THROW(table.AddItem(root, "disk", MakeFile("disk")), exc::win_sys_exc_t);
  EXPECT_THROW(table.AddItem(root, "other", MakeFile("other")), exc::win_sys_exc_t);
  const auto disk = table.LookupChild(root, "disk");
  const auto other = table.LookupChild(root, "other");
  EXPECT_THROW(table.RequireStored(disk), exc::win_sys_exc_t);
  EXPECT_THROW(table.RequireAllStored(), exc::win_sys_exc_t);
  EXPECT_THROW(table.AddFoundItem(root, "disk", MakeFile("disk")), exc::win_sys_exc_t);
  table.RequireStored(root);
  sink->isBroken = false;
  table.RequireStored(disk);
  EXPECT_EQ(sink->records.at(disk).name, "disk");
  EXPECT_EQ(sink->records.at(disk).parentFid, root);
  EXPECT_FALSE(sink->records.contains(other));
  table.RequireAllStored();
  EXPECT_EQ(sink->records.at(other).name, "other");
  const int writes = sink->writes;
  table.RequireAllStored();
  EXPECT_EQ(sink->writes, writes) << "once is enough";
}

/// Does something when it is asked what the registry is to say of it.
class CAskedFile : public CFakeFile {
 public:
  using CFakeFile::CFakeFile;
  void GetItemSpec(SFsItemSpec& spec) override {
    if (const auto action = std::exchange(whenAsked, {}))
      action();
    CFakeFile::GetItemSpec(spec);
  }
  std::function<void()> whenAsked;
};

TEST_F(FsItemsTab, AnItemThatIsToBeStoredAgainIsAskedWithoutTheLock) {
  const auto first = boost::make_shared<CAskedFile>(host, host->Put("first", false), "first");
  sink->isBroken = true;
  EXPECT_THROW(table.AddItem(root, "disk", first), exc::win_sys_exc_t);
  sink->isBroken = false;
  const auto fid = table.LookupChild(root, "disk");
  // Another thread's work, which the item waits for: it could not be done if the lock were held.
  first->whenAsked = [&] {
    std::thread([&] {
      sink->isBroken = true;
      EXPECT_THROW(table.AddItem(root, "disk", MakeFile("second")), exc::win_sys_exc_t);
      sink->isBroken = false;
    }).join();
  };
  table.RequireStored(fid);
  EXPECT_FALSE(first->whenAsked);
  EXPECT_EQ(sink->records.at(fid).backings.at(GUID{}).path, "second") << "the item that it is by now";
}

TEST_F(FsItemsTab, ItemsOfATransactionThatFailedAreStoredLater) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  std::vector<SNfsChild> items;
  for (const char* name : {"a", "b", "c"})
    items.push_back({name, InvalidFid, MakeFile(std::string("folder/") + name)});
  sink->isCommitBroken = true;
  EXPECT_THROW(table.AddItems(folder, items), exc::win_sys_exc_t);
  EXPECT_EQ(sink->records.size(), 2U);
  sink->isCommitBroken = false;
  table.RequireAllStored();
  for (const char* name : {"a", "b", "c"})
    EXPECT_TRUE(sink->records.contains(table.LookupChild(folder, name))) << name;

  sink->isCommitBroken = true;
  EXPECT_THROW(table.RemoveItem(folder), exc::win_sys_exc_t);
  EXPECT_EQ(table.LookupChild(root, "folder"), InvalidFid);
  EXPECT_TRUE(sink->records.contains(folder));
  sink->isCommitBroken = false;
  table.RequireAllStored();
  EXPECT_EQ(sink->records.size(), 1U) << "the root's";
}

TEST_F(FsItemsTab, NothingIsStoredAtAPlaceThatARemovedItemStillClaims) {
  const auto old = table.AddItem(root, "disk", MakeFile("disk"));
  sink->isBroken = true;
  EXPECT_THROW(table.RemoveChild(root, "disk"), exc::win_sys_exc_t);
  EXPECT_EQ(table.LookupChild(root, "disk"), InvalidFid);
  EXPECT_THROW(table.AddItem(root, "disk", MakeFile("disk")), exc::win_sys_exc_t);
  EXPECT_EQ(table.LookupChild(root, "disk"), InvalidFid);
  EXPECT_THROW(table.ReleasePlace(root, "disk"), exc::win_sys_exc_t);
  sink->isBroken = false;
  // Before a backend moves something there.
  table.ReleasePlace(root, "disk");
  EXPECT_FALSE(sink->records.contains(old));
  const auto young = table.AddItem(root, "disk", MakeFile("disk"));
  EXPECT_NE(young, old);
  EXPECT_FALSE(sink->records.contains(old));
  EXPECT_TRUE(sink->records.contains(young));
}

TEST_F(FsItemsTab, AMovedItemWhosePlaceCouldNotBeFreedKeepsItUntilItCan) {
  const auto moved = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(moved, root, "b");
  sink->isBroken = true;
  EXPECT_THROW(table.ReleasePlace(root, "a"), exc::win_sys_exc_t);
  sink->isBroken = false;
  table.ReleasePlace(root, "a");
  EXPECT_EQ(sink->records.at(moved).name, "b");
}

TEST_F(FsItemsTab, AMovedItemThatCouldNotBeStoredAgainStillGivesUpItsOldPlace) {
  const auto moved = table.AddItem(root, "x", MakeFile("x"));
  table.MoveItem(moved, root, "a");
  sink->isBroken = true;
  EXPECT_THROW(table.AddItem(root, "a", MakeFile("a")), exc::win_sys_exc_t);
  sink->isBroken = false;
  EXPECT_EQ(sink->records.at(moved).name, "x");
  table.ReleasePlace(root, "x");
  EXPECT_EQ(sink->records.at(moved).name, "a");
}

TEST_F(FsItemsTab, NothingIsAddedAtAPlaceThatCannotBeFreed) {
  const auto moved = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(moved, root, "b");
  sink->isBroken = true;
  EXPECT_THROW(table.AddFoundItem(root, "a", MakeFile("a")), exc::win_sys_exc_t);
  EXPECT_EQ(table.LookupChild(root, "a"), InvalidFid);
}

TEST_F(FsItemsTab, AChildIsRemovedOnlyWhileItIsThatItem) {
  const auto item = MakeFile("a");
  const auto fid = table.AddItem(root, "a", item);
  EXPECT_EQ(table.AddItem(root, "a", MakeFile("a")), fid);
  table.RemoveChildIf(root, "a", fid, item.get());
  EXPECT_EQ(table.LookupChild(root, "a"), fid) << "another one has come";
  table.RemoveChildIf(root, "a", fid, table.GetItem(fid).get());
  EXPECT_EQ(table.LookupChild(root, "a"), InvalidFid);
}

TEST_F(FsItemsTab, RemovingAFolderRemovesAllBelowIt) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  const auto sub = table.AddItem(folder, "sub", MakeFolder("folder/sub"));
  const auto file = table.AddItem(sub, "disk", MakeFile("folder/sub/disk"));
  const auto other = table.AddItem(root, "other", MakeFile("other"));
  table.RemoveItem(folder);
  for (const auto fid : {folder, sub, file}) {
    EXPECT_EQ(table.GetItem(fid), nullptr);
    EXPECT_FALSE(sink->records.contains(fid));
  }
  EXPECT_EQ(table.LookupChild(root, "folder"), InvalidFid);
  EXPECT_EQ(table.LookupChild(sub, "disk"), InvalidFid);
  EXPECT_EQ(table.LookupChild(root, "other"), other);
}

TEST_F(FsItemsTab, ADeepTreeIsRemovedWithoutDeepCalls) {
  auto parent = root;
  const auto top = table.AddItem(root, "d", MakeFolder("d"));
  parent = top;
  for (int i = 0; i < 50000; ++i)
    parent = table.AddItem(parent, "d", boost::make_shared<CFakeFolder>(host, host->root, "d"));
  table.RemoveItem(top);
  EXPECT_EQ(table.GetItem(parent), nullptr);
  EXPECT_EQ(sink->records.size(), 1U);
}

TEST_F(FsItemsTab, AnItemInUseOutlivesItsRecord) {
  const auto fid = table.AddItem(root, "disk", MakeFile("disk"));
  const auto item = table.GetItem(fid);
  table.RemoveItem(fid);
  EXPECT_TRUE(item->Exists());
}

TEST_F(FsItemsTab, RemovingAnUnknownItemIsNotFoundAndAnUnknownNameIsNoFault) {
  EXPECT_EQ(ThrownText([&] { table.RemoveItem(4711); }), "Item with FID [4711] does not exist");
  EXPECT_NO_THROW(table.RemoveChild(root, "nothing"));
  EXPECT_NO_THROW(table.RemoveChildIf(root, "nothing", 5));
}

TEST_F(FsItemsTab, AChildIsRemovedByNameOnlyWhileItIsTheSame) {
  const auto fid = table.AddItem(root, "disk", MakeFile("disk"));
  table.RemoveChildIf(root, "disk", fid + 1);
  EXPECT_EQ(table.LookupChild(root, "disk"), fid);
  table.RemoveChildIf(root, "disk", fid);
  EXPECT_EQ(table.LookupChild(root, "disk"), InvalidFid);
}

TEST_F(FsItemsTab, TheRootOfAShareIsNotRemovedAndKeepsItsChildren) {
  const auto fid = table.AddItem(root, "disk", MakeFile("disk"));
  EXPECT_EQ(ThrownText([&] { table.RemoveItem(root); }),
            "Item [vol] refers to the root of the NFS share and cannot be deleted.");
  EXPECT_NE(table.GetItem(root), nullptr);
  EXPECT_NE(table.GetItem(fid), nullptr);
}

TEST_F(FsItemsTab, AMoveKeepsTheFidAndWhatIsBelow) {
  const auto from = table.AddItem(root, "from", MakeFolder("from"));
  const auto to = table.AddItem(root, "to", MakeFolder("to"));
  const auto moved = table.AddItem(from, "a", MakeFolder("from/a"));
  const auto below = table.AddItem(moved, "x", MakeFile("from/a/x"));
  table.MoveItem(moved, to, "b");
  EXPECT_EQ(table.LookupChild(from, "a"), InvalidFid);
  EXPECT_EQ(table.LookupChild(to, "b"), moved);
  EXPECT_EQ(table.LookupChild(moved, "x"), below);
  EXPECT_EQ(table.LookupChild(moved, ".."), to);
  EXPECT_EQ(table.GetItemPath(below), "vol/to/b/x. FID: " + std::to_string(below));
}

TEST_F(FsItemsTab, AMoveLeavesTheStoredRecord) {
  const auto fid = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(fid, root, "b");
  EXPECT_EQ(sink->records[fid].name, "a");
}

TEST_F(FsItemsTab, AStoredPlaceThatIsTakenAnewIsGivenUp) {
  const auto moved = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(moved, root, "b");
  const auto successor = table.AddItem(root, "A", MakeFile("A"));
  EXPECT_NE(successor, moved);
  EXPECT_EQ(sink->records[moved].name, "b");
  EXPECT_EQ(sink->records[successor].name, "A");
}

TEST_F(FsItemsTab, AnItemThatMovedBackHasItsStoredPlace) {
  const auto fid = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(fid, root, "b");
  table.MoveItem(fid, root, "a");
  EXPECT_EQ(table.AddItem(root, "a", MakeFile("a")), fid);
  EXPECT_EQ(sink->records[fid].name, "a");
}

TEST_F(FsItemsTab, AMoveToTheStoredPlaceOfAMovedItemStoresThatOneAnew) {
  const auto first = table.AddItem(root, "a", MakeFile("a"));
  const auto second = table.AddItem(root, "b", MakeFile("b"));
  table.MoveItem(first, root, "c");
  table.MoveItem(second, root, "A");
  EXPECT_EQ(sink->records[first].name, "c");
  EXPECT_EQ(sink->records[second].name, "b");
  table.MoveItem(first, root, "b");
  EXPECT_EQ(sink->records[first].name, "c");
  EXPECT_EQ(sink->records[second].name, "A");
}

TEST_F(FsItemsTab, AnItemThatLeftItsFolderIsNotStoredWhereItsObjectIsNot) {
  const auto to = table.AddItem(root, "to", MakeFolder("to"));
  const auto moved = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(moved, to, "a");
  EXPECT_TRUE(sink->records.contains(moved));
  table.AddItem(root, "a", MakeFile("a"));
  EXPECT_FALSE(sink->records.contains(moved));
  EXPECT_TRUE(table.GetItem(moved));
  table.MoveItem(moved, to, "b");
  table.AddItem(to, "a", MakeFile("to/a"));
  EXPECT_FALSE(sink->records.contains(moved));
}

TEST_F(FsItemsTab, AReleasedPlaceIsNoLongerStored) {
  const auto moved = table.AddItem(root, "a", MakeFile("a"));
  const auto there = table.AddItem(root, "x", MakeFile("x"));
  table.MoveItem(moved, root, "b");
  table.ReleasePlace(root, "a", moved);
  EXPECT_EQ(sink->records[moved].name, "a") << "it is on its way back";
  table.ReleasePlace(root, "A");
  EXPECT_EQ(sink->records[moved].name, "b");
  table.ReleasePlace(root, "x");
  EXPECT_EQ(sink->records[there].name, "x");
}

TEST_F(FsItemsTab, AnItemThatIsBackInAnotherSpellingKeepsItsStoredPlace) {
  const auto moved = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(moved, root, "b");
  table.MoveItem(moved, root, "A");
  table.ReleasePlace(root, "a");
  EXPECT_EQ(sink->records[moved].name, "a");
}

TEST_F(FsItemsTab, AMoveOntoAnotherItemDropsIt) {
  const auto fid = table.AddItem(root, "a", MakeFile("a"));
  const auto target = table.AddItem(root, "b", MakeFile("b"));
  table.MoveItem(fid, root, "B");
  EXPECT_EQ(table.LookupChild(root, "b"), fid);
  EXPECT_EQ(table.GetItem(target), nullptr);
}

TEST_F(FsItemsTab, AMoveToAnotherSpellingOfTheNameIsOne) {
  const auto fid = table.AddItem(root, "a", MakeFile("a"));
  table.MoveItem(fid, root, "A");
  EXPECT_EQ(table.LookupChild(root, "a"), fid);
  EXPECT_EQ(Children(root).begin()->first, "A");
}

TEST_F(FsItemsTab, WhatCannotBeMoved) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  const auto sub = table.AddItem(folder, "sub", MakeFolder("folder/sub"));
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.MoveItem(4711, root, "x"); }),
            "There is no item with FID [4711]. Item cannot be moved.");
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.MoveItem(root, folder, "x"); }),
            "Failed to move NFS shared folder [vol].");
  EXPECT_EQ(ThrownStatus([&] { table.MoveItem(folder, sub, "x"); }), NFS3ERR_INVAL);
  EXPECT_EQ(ThrownStatus([&] { table.MoveItem(folder, folder, "x"); }), NFS3ERR_INVAL);
  EXPECT_EQ(ThrownStatus([&] { table.MoveItem(folder, 4711, "x"); }), NFS3ERR_NOENT);
  EXPECT_EQ(table.LookupChild(root, "folder"), folder);
}

TEST_F(FsItemsTab, AFileInTheFoldersPlaceLeavesNothingBehind) {
  const auto folder = table.AddItem(root, "x", MakeFolder("x"));
  const auto below = table.AddItem(folder, "y", MakeFile("x/y"));
  EXPECT_EQ(table.AddItem(root, "x", MakeFile("x")), folder);
  EXPECT_EQ(table.GetItem(below), nullptr);
  EXPECT_EQ(table.LookupChild(folder, "y"), InvalidFid);
}

TEST_F(FsItemsTab, AResumedItemHasItsFidAndIsNotStored) {
  const int writes = sink->writes;
  const auto file = MakeFile("disk");
  table.ResumeItem(42, root, "disk", file, GUID{});
  EXPECT_EQ(table.LookupChild(root, "disk"), 42U);
  EXPECT_EQ(table.GetItem(42), file);
  EXPECT_EQ(sink->writes, writes);
  EXPECT_EQ(ThrownStatus([&] { table.ResumeItem(43, 4711, "disk", file, GUID{}); }), NFS3ERR_NOENT);
}

TEST_F(FsItemsTab, ARequiredItemThatIsNotThereIsStale) {
  EXPECT_EQ(GetRequiredItem(table, root), table.GetItem(root));
  EXPECT_EQ(ThrownText<CVirtualFsExc>([&] { GetRequiredItem(table, 4711); }),
            "NFS listing table does not contain item with FID [4711].");
  EXPECT_EQ(ThrownStatus([&] { GetRequiredItem(table, 4711); }), NFS3ERR_STALE);
}

}  // namespace
}  // namespace test
