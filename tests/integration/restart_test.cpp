// What survives the death of the process.
#include <filesystem>

#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class RestartTest : public CWireTest {};
KELVO_WIRE_SUITE(RestartTest);

TEST_P(RestartTest, HandlesStayGoodOverKillAndRestart) {
  fs::create_directories(HostPath("folder/inner"));
  WriteFile(HostPath("folder/inner/file"), "content");
  WriteFile(HostPath("top"), "top");
  const bytes_t folder = HandleOf("folder");
  const bytes_t inner = HandleOf("inner", folder);
  const bytes_t file = HandleOf("file", inner);
  const bytes_t top = HandleOf("top");
  for (int round = 0; round < 3; ++round) {
    if (round == 2) {
      EXPECT_EQ(service_.Stop(), 0);
    } else {
      service_.Kill();
    }
    service_.Start();
    CNfsClient& client = NewClient();
    // Before anything else: no lookup has shown the service these items again.
    EXPECT_EQ(client.Read(file, 0, 100).data, "content");
    EXPECT_EQ(client.Read(top, 0, 100).data, "top");
    EXPECT_EQ(client.GetAttr(inner), Ok);
    EXPECT_EQ(client.Mount(), root_);
    EXPECT_EQ(HandleOf("folder"), folder);
    EXPECT_EQ(HandleOf("file", inner), file);
  }
}

TEST_P(RestartTest, WhatClientsMadeJustBeforeAKillIsThereUnderItsHandle) {
  std::vector<bytes_t> files;
  bytes_t folder;
  ASSERT_EQ(Client().MkDir(root_, "folder", &folder), Ok);
  for (int i = 0; i < 200; ++i) {
    bytes_t handle;
    ASSERT_EQ(Client().Create(folder, "file" + std::to_string(i), &handle), Ok);
    ASSERT_EQ(Client().Write(handle, 0, std::to_string(i)), Ok);
    files.push_back(handle);
  }
  service_.Kill();
  service_.Start();
  CNfsClient& client = NewClient();
  for (std::size_t i = 0; i < files.size(); ++i)
    EXPECT_EQ(client.Read(files[i], 0, 100).data, std::to_string(i));
}

TEST_P(RestartTest, AFileThatWentWhileTheServiceWasDownIsStaleAndItsNamesakeIsNew) {
  WriteFile(HostPath("file"), "old");
  const bytes_t old = HandleOf("file");
  service_.Kill();
  fs::remove(HostPath("file"));
  service_.Start();
  EXPECT_EQ(NewClient().GetAttr(old), Stale);
  WriteFile(HostPath("file"), "new");
  EXPECT_NE(HandleOf("file"), old);
}

TEST_P(RestartTest, AShareWhoseFolderWasDeletedReappearsEmptyUnderItsOldHandle) {
  WriteFile(HostPath("file"), "x");
  const bytes_t file = HandleOf("file");
  service_.Kill();
  fs::remove_all(service_.Root());
  service_.Start();
  EXPECT_EQ(NewClient().Mount(), root_);
  EXPECT_TRUE(Client().List(root_).empty());
  EXPECT_EQ(Client().GetAttr(file), Stale);
}

TEST_P(RestartTest, ARenamedFileStandsUnderAFreshNameAfterTheRestart) {
  WriteFile(HostPath("before"), "content");
  const bytes_t handle = HandleOf("before");
  ASSERT_EQ(Client().Rename(root_, "before", root_, "after"), Ok);
  ASSERT_EQ(Client().Read(handle, 0, 100).data, "content");
  service_.Kill();
  service_.Start();
  // A move does not touch the stored record, so the old name is what is looked for, and it has gone.
  EXPECT_EQ(NewClient().GetAttr(handle), Stale);
  EXPECT_EQ(Client().Read(HandleOf("after"), 0, 100).data, "content");
}

TEST_P(RestartTest, TheSecondStartKnowsAThousandItems) {
  for (int i = 0; i < 1000; ++i)
    WriteFile(HostPath("f" + std::to_string(i)), std::to_string(i));
  const std::vector<SEntry> before = Client().List(root_);
  service_.Kill();
  service_.Start();
  CNfsClient& client = NewClient();
  for (const SEntry& entry : before) {
    SAttributes attributes;
    ASSERT_EQ(client.GetAttr(entry.handle, &attributes), Ok) << entry.name;
    EXPECT_EQ(attributes.fileid, entry.fileid);
  }
}

TEST_P(RestartTest, AShareThatAppearsInTheRegistryIsServedAfterTheNextStart) {
  service_.SetValue("nfsFolderName", "REG_SZ", "/second", "Shared Folders/{11111111-2222-3333-4444-555555555555}");
  EXPECT_FALSE(Client().Mount("/second"));
  EXPECT_EQ(service_.Stop(), 0);
  service_.Start();
  EXPECT_TRUE(NewClient().Mount("/second"));
  EXPECT_EQ(Client().Mount(), root_);
}

TEST_P(RestartTest, OneDamagedShareOrItemCostsThatOneAlone) {
  WriteFile(HostPath("file"), "content");
  const bytes_t handle = HandleOf("file");
  service_.SetValue("nfsFolderName", "REG_SZ", "/bad", "Shared Folders/not-a-guid");
  service_.SetValue("itemName", "REG_DWORD", "7", "ItemsCache/12345");
  service_.SetValue("itemName", "REG_SZ", "x", "ItemsCache/not-a-number");
  service_.Kill();
  service_.Start();
  EXPECT_EQ(NewClient().Read(handle, 0, 100).data, "content");
  EXPECT_FALSE(Client().Mount("/bad"));
}

}  // namespace
