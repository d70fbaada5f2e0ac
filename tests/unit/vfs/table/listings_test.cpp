// Snapshots of folders and where they wait for the next page.
#include "table_fixture.h"
#include "vfs/table/listing_slots.h"
#include "vfs/table/nfs_folder_dir_plus_cache.h"

namespace test {
namespace {

CNfsFolderDirPlusCache Snapshot(int count) {
  CNfsNameMap names;
  for (int i = 0; i < count; ++i)
    names["n" + std::to_string(1000 + i)] = static_cast<std::uint64_t>(i);
  return CNfsFolderDirPlusCache(names);
}

boost::shared_ptr<CNfsFolderDirPlusCache> SharedSnapshot(std::size_t count) {
  return boost::make_shared<CNfsFolderDirPlusCache>(std::vector<CNfsFolderDirPlusCache::SEntry>(count));
}

TEST(FolderDirPlusCache, AnEmptyFolderEndsAtOnce) {
  const auto snapshot = Snapshot(0);
  const auto page = snapshot.TakePage(0);
  EXPECT_TRUE(page.eof);
  EXPECT_TRUE(page.entries.empty());
}

TEST(FolderDirPlusCache, TenEntriesAreOnePage) {
  const auto snapshot = Snapshot(10);
  const auto page = snapshot.TakePage(0);
  EXPECT_TRUE(page.eof);
  EXPECT_EQ(page.entries.size(), 10U);
  EXPECT_EQ(page.firstCookie, 1U);
}

TEST(FolderDirPlusCache, ElevenEntriesAreTwoPages) {
  const auto snapshot = Snapshot(11);
  const auto first = snapshot.TakePage(0);
  EXPECT_FALSE(first.eof);
  EXPECT_EQ(first.entries.size(), 10U);
  const auto second = snapshot.TakePage(10);
  EXPECT_TRUE(second.eof);
  ASSERT_EQ(second.entries.size(), 1U);
  EXPECT_EQ(second.entries[0].name, "n1010");
  EXPECT_EQ(second.firstCookie, 11U);
}

TEST(FolderDirPlusCache, ACookiePastTheEndGivesNothing) {
  const auto snapshot = Snapshot(11);
  for (const std::uint64_t cookie : {std::uint64_t{11}, std::uint64_t{500}, std::uint64_t{1} << 32,
                                     (std::uint64_t{1} << 32) | 1, ~std::uint64_t{0}}) {
    const auto page = snapshot.TakePage(cookie);
    EXPECT_TRUE(page.eof) << cookie;
    EXPECT_TRUE(page.entries.empty()) << cookie;
  }
}

TEST(FolderDirPlusCache, NamesAreInOrderWithoutRegardToCase) {
  const CNfsFolderDirPlusCache snapshot(CNfsNameMap{{"b", 1}, {"A", 2}, {"C", 3}, {"_", 4}});
  std::string order;
  for (const auto& entry : snapshot.GetEntries())
    order += entry.name;
  EXPECT_EQ(order, "_AbC");
}

TEST(ListingSlots, AreKeptForEachClient) {
  CNfsListingSlots slots;
  const auto one = SharedSnapshot(1);
  const auto two = SharedSnapshot(2);
  slots.Set({5, 1}, one);
  slots.Set({5, 2}, two);
  EXPECT_EQ(slots.Get({5, 1}), one);
  EXPECT_EQ(slots.Get({5, 2}), two);
  EXPECT_EQ(slots.Get({6, 1}), nullptr);
  slots.Reset({5, 1});
  EXPECT_EQ(slots.Get({5, 1}), nullptr);
  EXPECT_EQ(slots.Get({5, 2}), two);
  EXPECT_EQ(slots.EntryCount(), 2U);
}

TEST(ListingSlots, GoWithTheFolder) {
  CNfsListingSlots slots;
  for (std::uint32_t client = 0; client < 3; ++client)
    slots.Set({5, client}, SharedSnapshot(4));
  slots.Set({6, 1}, SharedSnapshot(1));
  slots.ResetFolder(5);
  EXPECT_EQ(slots.Count(), 1U);
  EXPECT_EQ(slots.EntryCount(), 1U);
}

TEST(ListingSlots, AClientThatNeverFinishesCostsNoMoreThanTheBound) {
  CNfsListingSlots slots;
  const auto used = SharedSnapshot(1);
  slots.Set({1, 0}, used);
  for (std::uint64_t folder = 2; folder < 1000; ++folder) {
    slots.Set({folder, 0}, SharedSnapshot(1));
    EXPECT_EQ(slots.Get({1, 0}), used);
  }
  EXPECT_EQ(slots.Count(), CNfsListingSlots::MaxSnapshots);
  EXPECT_EQ(slots.EntryCount(), CNfsListingSlots::MaxSnapshots);
}

TEST(ListingSlots, LargeListingsMakeRoomForEachOther) {
  CNfsListingSlots slots;
  slots.Set({1, 0}, SharedSnapshot(CNfsListingSlots::MaxEntries - 10));
  slots.Set({2, 0}, SharedSnapshot(11));
  EXPECT_EQ(slots.Get({1, 0}), nullptr);
  EXPECT_EQ(slots.EntryCount(), 11U);
  slots.Set({3, 0}, SharedSnapshot(CNfsListingSlots::MaxEntries + 1));
  EXPECT_NE(slots.Get({3, 0}), nullptr);
  EXPECT_EQ(slots.Count(), 1U);
}

using TableListings = TableFixture;

TEST_F(TableListings, ASlotIsTheFolders) {
  const auto folder = table.AddItem(root, "folder", MakeFolder("folder"));
  EXPECT_EQ(table.GetDirPlusCache(folder, 1), nullptr);
  const auto snapshot = SharedSnapshot(3);
  table.SetDirPlusCache(folder, 1, snapshot);
  EXPECT_EQ(table.GetDirPlusCache(folder, 1), snapshot);
  table.ResetDirPlusCache(folder, 1);
  EXPECT_EQ(table.GetDirPlusCache(folder, 1), nullptr);

  table.SetDirPlusCache(folder, 1, snapshot);
  table.RemoveItem(folder);
  EXPECT_EQ(table.GetDirPlusCache(folder, 1), nullptr);
  EXPECT_NO_THROW(table.SetDirPlusCache(folder, 1, snapshot));
}

TEST_F(TableListings, AnUnknownFolderAndAFileHaveNone) {
  const auto file = table.AddItem(root, "disk", MakeFile("disk"));
  const std::string notFolder = "Item [disk] is not folder. Parent FID: [" + std::to_string(root) + "].";
  EXPECT_EQ(table.GetDirPlusCache(4711, 1), nullptr);
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.GetDirPlusCache(file, 1); }), notFolder);
  EXPECT_EQ(ThrownText<exc::runtime_exc_t>([&] { table.ResetDirPlusCache(file, 1); }), notFolder);
  EXPECT_EQ(ThrownText<CVirtualFsExc>([&] { table.ResetDirPlusCache(4711, 1); }),
            "Folder with FID [4711] does not exists.");
  EXPECT_EQ(ThrownStatus([&] { table.ResetDirPlusCache(4711, 1); }), NFS3ERR_NOENT);
}

}  // namespace
}  // namespace test
