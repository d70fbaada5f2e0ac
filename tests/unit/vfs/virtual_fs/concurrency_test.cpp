// Clients side by side.
#include <atomic>
#include <thread>

#include "virtual_fs_fixture.h"

namespace test {
namespace {

using SideBySide = VirtualFsFixture;

/// Runs the work on several threads at once and waits for all.
template <typename Work>
void RunThreads(int count, const Work& work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([&work, i] { work(i); });
  for (auto& thread : threads)
    thread.join();
}

TEST_F(SideBySide, EachClientCreatesReadsAndRemovesItsOwn) {
  const auto folder = MakeFolder(root, "shared");
  RunThreads(4, [&](int thread) {
    for (int i = 0; i < 20; ++i) {
      const std::string name = std::to_string(thread) + "-" + std::to_string(i);
      const auto fid = MakeFile(folder, name);
      EXPECT_EQ(Write(fid, 0, name), NFS3_OK);
      EXPECT_EQ(Find(folder, name), fid);
      EXPECT_EQ(Read(fid), name);
      if (i % 2 == 0) {
        EXPECT_EQ(Remove(folder, name), NFS3_OK);
      }
    }
  });
  EXPECT_EQ(List(folder).size(), 40U);
}

TEST_F(SideBySide, AllClientsGetOneHandleForOneFile) {
  for (int i = 0; i < 20; ++i)
    PutLocal("f" + std::to_string(i));
  std::vector<std::vector<std::uint64_t>> fids(4, std::vector<std::uint64_t>(20));
  RunThreads(4, [&](int thread) {
    for (std::size_t i = 0; i < 20; ++i)
      fids[static_cast<std::size_t>(thread)][i] = Find(root, "f" + std::to_string(i));
  });
  for (std::size_t thread = 1; thread < 4; ++thread)
    EXPECT_EQ(fids[thread], fids[0]);
}

TEST_F(SideBySide, ARenameBesideListingsKeepsItsHandle) {
  const auto fid = MakeFile(root, "a");
  ASSERT_EQ(Write(fid, 0, "hello"), NFS3_OK);
  std::atomic<bool> stop{false};
  std::thread lister([&] {
    while (!stop)
      EXPECT_EQ(ReadDirPlus(root).status, NFS3_OK);
  });
  std::thread finder([&] {
    while (!stop) {
      Lookup(root, "a");
      Lookup(root, "b");
    }
  });
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(Rename(root, i % 2 == 0 ? "a" : "b", root, i % 2 == 0 ? "b" : "a"), NFS3_OK);
  stop = true;
  lister.join();
  finder.join();
  EXPECT_EQ(Read(fid), "hello");
  EXPECT_EQ(Find(root, "a"), fid);
}

TEST_F(SideBySide, OneFolderIsCreatedListedAndRemovedByAll) {
  RunThreads(4, [&](int) {
    for (int i = 0; i < 15; ++i) {
      const auto made = MakeDir(root, "x");
      if (made.status == NFS3_OK)
        Create(FidFromHandle(*made.object), "disk");
      ReadDirPlus(root);
      Lookup(root, "x");
      RemoveDir(root, "x");
    }
  });
  EXPECT_EQ(RemoveDir(root, "x"), NFS3_OK);
  EXPECT_EQ(List(root), std::vector<std::string>{});
  EXPECT_FALSE(std::filesystem::exists(local / "x"));
}

TEST_F(SideBySide, AdministrationBesideClients) {
  std::atomic<bool> stop{false};
  const auto fid = MakeFile(root, "disk");
  std::thread reader([&] {
    while (!stop)
      EXPECT_EQ(Read(fid), "");
  });
  for (int i = 0; i < 10; ++i) {
    const auto uid = CreateShare("share" + std::to_string(i));
    fs->CreateHostFolder(uid, "a/b", "");
    fs->ClearItemsCache();
    fs->DeleteHostFolder(uid, "a");
    fs->DismountShare(uid);
  }
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace test
