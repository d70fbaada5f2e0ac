// A path on the disk, and what the table knows of it.
#include "vfs/table/host_folder_path.h"

#include "table_fixture.h"

namespace test {
namespace {

class HostFolderPathTest : public TableFixture {
 protected:
  std::uint64_t Sync(const std::string& path) { return SyncHostFolderPath(table, shareUid, path); }
};

TEST_F(HostFolderPathTest, AddsWhatCameBehindTheTablesBack) {
  host->Put("a/b", true);
  const std::uint64_t found = Sync("a\\b");
  const std::uint64_t a = table.LookupChild(root, "a");
  ASSERT_NE(a, InvalidFid);
  EXPECT_EQ(found, table.LookupChild(a, "b"));
  EXPECT_NE(found, InvalidFid);
  EXPECT_EQ(Sync("a/b"), found);
  EXPECT_EQ(Sync(""), root);
}

TEST_F(HostFolderPathTest, RemovesWhatHasGone) {
  table.AddItem(root, "a", MakeFolder("a"));
  host->Drop("a");
  EXPECT_EQ(Sync("a"), InvalidFid);
  EXPECT_EQ(table.LookupChild(root, "a"), InvalidFid);
}

TEST_F(HostFolderPathTest, WhatAClientMakesMeanwhileStays) {
  const auto gone = MakeFolder("a");
  const std::uint64_t fid = table.AddItem(root, "a", gone);
  host->Drop("a");
  host->After("OpenChild", [&] { table.AddMadeItem(root, "a", MakeFolder("a"), gone); });
  EXPECT_EQ(Sync("a"), InvalidFid);
  EXPECT_EQ(table.LookupChild(root, "a"), fid);
  EXPECT_EQ(Sync("a"), fid);
}

TEST_F(HostFolderPathTest, NothingBesideTheShareIsLookedFor) {
  host->Put("a", true);
  for (const char* path : {"..", ".", "a/..", "a/./b"})
    EXPECT_EQ(ThrownText<CVirtualFsExc>([&] { Sync(path); }), CVirtualFsExc(NFS3ERR_INVAL).what()) << path;
  EXPECT_EQ(host->opens, 0);
  EXPECT_EQ(SyncHostFolderPath(table, Guid(9), "a"), InvalidFid);
}

}  // namespace
}  // namespace test
