// Clients side by side.
#include <atomic>
#include <thread>

#include "hostfs/host_fs_folder.h"
#include "support/forwarding_files.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
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
  List(root);
  EXPECT_EQ(Lookup(root, "b").status, NFS3ERR_NOENT);
}

/// One client's call in the middle of another's.
class InBetween : public VirtualFsFixture {
 protected:
  const boost::shared_ptr<SFakeBackend> backend = boost::make_shared<SFakeBackend>();
  const std::uint64_t fake = PublishFake(backend);
};

TEST_F(InBetween, ARenameToTheNameOfAFileThatIsJustMadeKeepsItsHandle) {
  MakeFile(fake, "x");
  const auto moved = MakeFile(fake, "y");
  ASSERT_EQ(Write(moved, 0, "disk"), NFS3_OK);
  backend->After("CreateFile", [&] { EXPECT_EQ(Rename(fake, "y", fake, "x"), NFS3_OK); });
  const auto created = Create(fake, "x");
  ASSERT_TRUE(created.object);
  EXPECT_EQ(FidFromHandle(*created.object), moved);
  EXPECT_EQ(Read(moved), "disk");
  EXPECT_EQ(Find(fake, "x"), moved);
  EXPECT_TRUE(IsStored(moved));
}

TEST_F(InBetween, AFolderThatIsMadeAnewKeepsWhatIsInIt) {
  backend->After("CreateSubfolder", [&] {
    EXPECT_EQ(RemoveDir(fake, "vm"), NFS3_OK);
    MakeFile(MakeFolder(fake, "vm"), "disk");
  });
  const auto folder = MakeFolder(fake, "vm");
  EXPECT_EQ(Find(fake, "vm"), folder);
  EXPECT_EQ(GetAttrs(folder).status, NFS3_OK);
  EXPECT_EQ(List(folder), std::vector<std::string>{"disk"});
}

TEST_F(InBetween, AFileThatIsMadeWhileItsNameIsRemovedHasAHandleOfItsOwn) {
  const auto removed = MakeFile(fake, "x");
  std::uint64_t made = InvalidFid;
  backend->After("DeleteChild", [&] { made = MakeFile(fake, "x"); });
  EXPECT_EQ(Remove(fake, "x"), NFS3_OK);
  EXPECT_NE(made, removed);
  EXPECT_EQ(GetAttrs(removed).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(removed));
  EXPECT_EQ(GetAttrs(made).status, NFS3_OK);
  EXPECT_EQ(Find(fake, "x"), made);
}

/// A base, so that it outlives the files that are open at the end.
struct SHostFiles {
  FaultyFiles files;
};

/// The same on a folder of the host.
class InBetweenOnHost : protected SHostFiles, public VirtualFsFixture {
 protected:
  InBetweenOnHost() {
    std::filesystem::create_directory(temp.Path() / "host");
    auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->nfsFolderName = "host";
    const auto allocator = boost::make_shared<CCompletionEventsAllocator>();
    fs->ItemsTab()->RegisterShare(
        cfg, platform::NewGuid(),
        CHostFsFolder::Create(temp / "host", CFsProcInvoker::Create("host", 1, allocator), allocator, {}, true, files),
        InvalidFid);
    host = fs->ItemsTab()->GetShareFidByAlias("host");
  }

  std::uint64_t host = InvalidFid;
};

TEST_F(InBetweenOnHost, AFileThatIsMadeWhileItsNameIsRemovedHasAHandleOfItsOwn) {
  const auto removed = MakeFile(host, "disk");
  ASSERT_EQ(Write(removed, 0, "old"), NFS3_OK);
  std::uint64_t made = InvalidFid;
  files.faults.afterDeleteFile = [&](const platform::location_t&) {
    made = MakeFile(host, "Disk");
    EXPECT_EQ(Write(made, 0, "new"), NFS3_OK);
    EXPECT_NE(Write(removed, 0, "lost"), NFS3_OK);
  };
  EXPECT_EQ(Remove(host, "disk"), NFS3_OK);
  EXPECT_NE(made, removed);
  EXPECT_EQ(GetAttrs(removed).status, NFS3ERR_STALE);
  EXPECT_EQ(Find(host, "disk"), made);
  EXPECT_EQ(Read(made), "new");
}

TEST_F(InBetweenOnHost, AFolderThatIsMadeWhileItsNameIsRemovedHasAHandleOfItsOwn) {
  const auto removed = MakeFolder(host, "vm");
  std::uint64_t made = InvalidFid;
  files.faults.afterRemoveFolder = [&](const platform::location_t&) { made = MakeFolder(host, "vm"); };
  EXPECT_EQ(RemoveDir(host, "vm"), NFS3_OK);
  EXPECT_NE(made, removed);
  EXPECT_EQ(GetAttrs(removed).status, NFS3ERR_STALE);
  EXPECT_EQ(Find(host, "vm"), made);
  EXPECT_EQ(GetAttrs(made).status, NFS3_OK);
}

TEST_F(InBetween, WhatIsMadeCountsForMoreThanAnOlderLook) {
  std::uint64_t found = InvalidFid;
  boost::shared_ptr<IFsItem> seen;
  backend->After("CreateSubfolder", [&] {
    found = Find(fake, "vm");
    seen = fs->ItemsTab()->GetItem(found);
  });
  EXPECT_EQ(MakeFolder(fake, "vm"), found);
  EXPECT_NE(fs->ItemsTab()->GetItem(found), seen) << "the one that was made has its list of addresses";
}

TEST_F(InBetween, AFileThatIsRenamedBeforeItIsAddedHasItsNewNameAlone) {
  backend->After("CreateFile", [&] { EXPECT_EQ(Rename(fake, "x", fake, "z"), NFS3_OK); });
  const auto created = Create(fake, "x");
  EXPECT_EQ(created.status, NFS3_OK);
  EXPECT_FALSE(created.object.has_value());
  EXPECT_EQ(Lookup(fake, "x").status, NFS3ERR_NOENT);
  EXPECT_EQ(GetAttrs(Find(fake, "z")).status, NFS3_OK);
  EXPECT_EQ(List(fake), std::vector<std::string>{"z"});
}

TEST_F(InBetween, ANameThatIsGivenAnewWhileItIsLookedUpIsTheNewFile) {
  backend->Put("n", false, "old");
  std::uint64_t made = InvalidFid;
  backend->After("OpenChild", [&] {
    EXPECT_EQ(Rename(fake, "n", fake, "m"), NFS3_OK);
    made = MakeFile(fake, "n");
  });
  EXPECT_EQ(Find(fake, "n"), made);
  EXPECT_EQ(Write(made, 0, "new"), NFS3_OK);
  EXPECT_EQ(Read(Find(fake, "m")), "old");
}

TEST_F(InBetween, AFileThatDoesNotAnswerKeepsItsHandleWhenItIsMadeAgain) {
  const auto fid = MakeFile(fake, "x");
  const auto node = backend->root->children.at("x");
  node->isMute = true;
  EXPECT_NE(Create(fake, "x").status, NFS3_OK);
  node->isMute = false;
  EXPECT_EQ(GetAttrs(fid).status, NFS3_OK);
  EXPECT_EQ(Find(fake, "x"), fid);
}

TEST_F(InBetween, WhatIsMadeAgainWhileItIsFoundGoneStays) {
  MakeFile(fake, "x");
  backend->Drop("x");
  std::uint64_t made = InvalidFid;
  backend->After("Exists", [&] { made = MakeFile(fake, "x"); });
  EXPECT_EQ(Find(fake, "x"), made);
  EXPECT_EQ(GetAttrs(made).status, NFS3_OK);
  EXPECT_TRUE(IsStored(made));
}

TEST_F(InBetween, ANameThatIsLostWhileItIsLookedUpIsNotThere) {
  backend->Put("n", false, "disk");
  backend->After("OpenChild", [&] { EXPECT_EQ(Rename(fake, "n", fake, "m"), NFS3_OK); });
  EXPECT_EQ(Lookup(fake, "n").status, NFS3ERR_NOENT);
  EXPECT_EQ(Lookup(fake, "n").status, NFS3ERR_NOENT);
  EXPECT_EQ(Read(Find(fake, "m")), "disk");
  EXPECT_EQ(Create(fake, "n", GUARDED).status, NFS3_OK);
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
