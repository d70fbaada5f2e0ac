// READDIRPLUS.
#include <algorithm>
#include <chrono>

#include "virtual_fs_fixture.h"

namespace test {
namespace {

class Listing : public VirtualFsFixture {
 public:
  /// A fake share with entries "n1000", "n1001", …
  std::uint64_t Fill(int count) {
    for (int i = 0; i < count; ++i)
      backend->Put("n" + std::to_string(1000 + i), false);
    return PublishFake(backend);
  }
  const boost::shared_ptr<SFakeBackend> backend = boost::make_shared<SFakeBackend>();
};

TEST_F(Listing, OfAnEmptyFolder) {
  const auto page = ReadDirPlus(root);
  EXPECT_EQ(page.status, NFS3_OK);
  EXPECT_TRUE(page.eof);
  EXPECT_TRUE(page.entries.empty());
  EXPECT_FALSE(page.dirAttributes);
  EXPECT_EQ(page.cookieVerifier, nfs_verifier_t{});
}

TEST_F(Listing, AnEntryHasHandleAndCookieAndNoAttributes) {
  PutLocal("b");
  PutLocal("A");
  const auto page = ReadDirPlus(root);
  ASSERT_EQ(page.entries.size(), 2U);
  EXPECT_EQ(page.entries[0].name, "A");
  EXPECT_EQ(page.entries[0].cookie, 1U);
  EXPECT_EQ(page.entries[1].name, "b");
  EXPECT_EQ(page.entries[1].cookie, 2U);
  for (const auto& entry : page.entries) {
    EXPECT_FALSE(entry.nameAttributes);
    ASSERT_TRUE(entry.nameHandle);
    EXPECT_EQ(FidFromHandle(*entry.nameHandle), entry.fileid);
    EXPECT_EQ(Find(root, entry.name), entry.fileid);
    EXPECT_TRUE(IsStored(entry.fileid));
  }
}

TEST_F(Listing, PagesOfTen) {
  const auto fake = Fill(25);
  EXPECT_EQ(ReadDirPlus(fake, 0).entries.size(), 10U);
  EXPECT_FALSE(ReadDirPlus(fake, 0).eof);
  EXPECT_EQ(ReadDirPlus(fake, 10).entries.size(), 10U);
  EXPECT_FALSE(ReadDirPlus(fake, 10).eof);
  const auto last = ReadDirPlus(fake, 20);
  EXPECT_EQ(last.entries.size(), 5U);
  EXPECT_TRUE(last.eof);
  EXPECT_EQ(last.entries.back().name, "n1024");
  EXPECT_EQ(last.entries.back().cookie, 25U);
}

TEST_F(Listing, TenAndElevenEntries) {
  const auto fake = Fill(10);
  EXPECT_TRUE(ReadDirPlus(fake).eof);
  EXPECT_EQ(ReadDirPlus(fake).entries.size(), 10U);
  backend->Put("z", false);
  EXPECT_FALSE(ReadDirPlus(fake).eof);
  const auto last = ReadDirPlus(fake, 10);
  EXPECT_EQ(last.entries.size(), 1U);
  EXPECT_TRUE(last.eof);
}

TEST_F(Listing, ACookiePastTheEndGivesNothing) {
  const auto fake = Fill(3);
  for (const std::uint64_t cookie : {std::uint64_t{3}, std::uint64_t{100}, std::uint64_t{1} << 32, ~std::uint64_t{0}}) {
    const auto page = ReadDirPlus(fake, cookie);
    EXPECT_EQ(page.status, NFS3_OK);
    EXPECT_TRUE(page.eof);
    EXPECT_TRUE(page.entries.empty());
  }
}

TEST_F(Listing, AnUnknownFolderAndAFile) {
  const auto file = MakeFile(root, "disk");
  for (const std::uint64_t cookie : {0, 5}) {
    EXPECT_EQ(ReadDirPlus(4711, cookie).status, NFS3ERR_NOENT);
    EXPECT_EQ(ReadDirPlus(file, cookie).status, NFS3ERR_SERVERFAULT);
  }
}

TEST_F(Listing, AFolderIsReadOnceAListing) {
  const auto fake = Fill(95);
  EXPECT_EQ(List(fake).size(), 95U);
  EXPECT_EQ(backend->enumerations, 1);
  EXPECT_EQ(List(fake).size(), 95U);
  EXPECT_EQ(backend->enumerations, 2);
}

TEST_F(Listing, TheFirstCookieListsAnew) {
  const auto fake = Fill(11);
  ReadDirPlus(fake, 0);
  backend->Put("a", false);
  EXPECT_EQ(ReadDirPlus(fake, 0).entries[0].name, "a");
  EXPECT_EQ(backend->enumerations, 2);
}

TEST_F(Listing, TheEndOfAListingForgetsIt) {
  const auto fake = Fill(11);
  ReadDirPlus(fake, 0);
  ReadDirPlus(fake, 10);
  backend->Put("z", false);
  EXPECT_EQ(ReadDirPlus(fake, 10).entries.size(), 2U);
  EXPECT_EQ(backend->enumerations, 2);
}

TEST_F(Listing, ALaterPageWithoutTheFirstListsToo) {
  const auto fake = Fill(30);
  EXPECT_EQ(ReadDirPlus(fake, 10).entries[0].name, "n1010");
  EXPECT_EQ(ReadDirPlus(fake, 20).entries[0].name, "n1020");
  EXPECT_EQ(backend->enumerations, 1);
}

TEST_F(Listing, TwoClientsPageOneFolderSideBySide) {
  const auto fake = Fill(30);
  const auto other = Client("10.0.0.2");
  ReadDirPlus(fake, 0);
  ReadDirPlus(fake, 0, other);
  EXPECT_FALSE(ReadDirPlus(fake, 10).eof);
  EXPECT_TRUE(ReadDirPlus(fake, 20).eof);
  EXPECT_FALSE(ReadDirPlus(fake, 10, other).eof);
  EXPECT_TRUE(ReadDirPlus(fake, 20, other).eof);
  EXPECT_EQ(backend->enumerations, 2);
}

TEST_F(Listing, AClientSeesWhatItMayUse) {
  const auto fake = Fill(30);
  const auto other = Client("10.0.0.2");
  for (int i = 0; i < 15; ++i)
    backend->root->children["n" + std::to_string(1000 + 2 * i)]->refused.insert(other.sin_addr.s_addr);
  EXPECT_EQ(List(fake).size(), 30U);
  const auto first = ReadDirPlus(fake, 0, other);
  EXPECT_FALSE(first.eof);
  ASSERT_EQ(first.entries.size(), 10U);
  EXPECT_EQ(first.entries[0].name, "n1001");
  EXPECT_EQ(first.entries[9].name, "n1019");
  const auto second = ReadDirPlus(fake, 10, other);
  EXPECT_TRUE(second.eof);
  ASSERT_EQ(second.entries.size(), 5U);
  EXPECT_EQ(second.entries[0].name, "n1021");
}

TEST_F(Listing, AFolderThatTellsThatNothingHasChangedIsNotReadAgain) {
  const auto fake = Fill(25);
  backend->state = 1;
  List(fake);
  EXPECT_EQ(List(fake).size(), 25U);
  EXPECT_EQ(backend->enumerations, 2);  // The first one found the entries, and so changed the table.
  EXPECT_EQ(List(fake).size(), 25U);
  EXPECT_EQ(List(fake, Client("10.0.0.2")).size(), 25U);
  EXPECT_EQ(backend->enumerations, 2);

  backend->Put("a", false);
  backend->state = 2;
  EXPECT_EQ(List(fake)[0], "a");
  backend->Drop("n1001");
  backend->state = 3;
  EXPECT_EQ(List(fake).size(), 25U);
  EXPECT_EQ(backend->enumerations, 4);
}

TEST_F(Listing, AListingThatIsKeptIsFilteredForEachClient) {
  const auto fake = Fill(12);
  backend->state = 1;
  List(fake);
  List(fake);
  const auto other = Client("10.0.0.2");
  backend->root->children["n1003"]->refused.insert(other.sin_addr.s_addr);
  EXPECT_EQ(List(fake, other).size(), 11U);
  EXPECT_EQ(List(fake).size(), 12U);
  backend->root->children["n1003"]->refused.clear();
  EXPECT_EQ(List(fake, other).size(), 12U);
  EXPECT_EQ(backend->enumerations, 2);
}

TEST_F(Listing, WhatClientsDoIsSeenInAListingThatWasKept) {
  const auto fake = Fill(3);
  backend->state = 1;
  List(fake);
  List(fake);
  // The state stays: the table alone must tell.
  const auto fid = MakeFile(fake, "a");
  EXPECT_EQ(List(fake), (std::vector<std::string>{"a", "n1000", "n1001", "n1002"}));
  List(fake);
  EXPECT_EQ(Rename(fake, "a", fake, "z"), NFS3_OK);
  EXPECT_EQ(List(fake), (std::vector<std::string>{"n1000", "n1001", "n1002", "z"}));
  EXPECT_EQ(Find(fake, "z"), fid);
  List(fake);
  EXPECT_EQ(Remove(fake, "n1001"), NFS3_OK);
  EXPECT_EQ(List(fake), (std::vector<std::string>{"n1000", "n1002", "z"}));
}

TEST_F(Listing, AMountOnAFolderEndsWhatWasKeptOfIt) {
  const auto folder = MakeFolder(PublishFake(backend), "backup");
  backend->Put("backup/notes", false);
  backend->state = 1;
  List(folder);
  List(folder);
  const auto mount = boost::make_shared<SFakeBackend>(Guid(7));
  mount->Put("disk", false);
  fs->ItemsTab()->MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
  EXPECT_EQ(List(folder), (std::vector<std::string>{"disk", "notes"}));
  mount->Put("more", false);
  EXPECT_EQ(List(folder).size(), 3U);  // The mount cannot tell whether it has changed.
}

TEST_F(Listing, AHostFolderThatOthersChangeIsReadAgain) {
  PutLocal("a");
  EXPECT_EQ(List(root), std::vector<std::string>{"a"});
  for (int i = 0; i < 50; ++i) {
    const std::string name = "b" + std::to_string(100 + i);
    PutLocal(name);
    EXPECT_EQ(List(root).back(), name);
    EXPECT_EQ(List(root).size(), static_cast<std::size_t>(i) + 2);
  }
}

TEST_F(Listing, WhatHasGoneLeavesTheTable) {
  const auto fake = Fill(3);
  List(fake);
  const auto fid = Find(fake, "n1001");
  backend->Drop("n1001");
  EXPECT_EQ(List(fake), (std::vector<std::string>{"n1000", "n1002"}));
  EXPECT_EQ(GetAttrs(fid).status, NFS3ERR_STALE);
  EXPECT_FALSE(IsStored(fid));
}

TEST_F(Listing, WhatIsNewStandsInItsPlaceAmongWhatIsKnown) {
  const auto b = MakeFile(root, "b");
  MakeFile(root, "d");
  const auto f = MakeFile(root, "f");
  for (const char* name : {"g", "C", "a", "e"})
    PutLocal(name);
  std::filesystem::remove(local / "d");
  std::filesystem::rename(local / "b", local / "B");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(List(root), (std::vector<std::string>{"a", "B", "C", "e", "f", "g"}));
    EXPECT_EQ(Find(root, "b"), b);
    EXPECT_EQ(Find(root, "f"), f);
  }
}

TEST_F(Listing, ALinkThatLeadsOutDoesNotHideTheOthers) {
  PutLocal("disk");
  PutLocal("../secret/file");
  std::filesystem::create_symlink(temp.Path(), local / "absolute");
  std::filesystem::create_symlink("../secret", local / "relative");
  std::filesystem::create_symlink("nowhere", local / "dangling");
  EXPECT_EQ(List(root), std::vector<std::string>{"disk"});
  EXPECT_NE(Lookup(root, "relative").status, NFS3_OK);
}

TEST_F(Listing, HandlesStayOverListings) {
  const auto fake = Fill(3);
  const auto first = ReadDirPlus(fake).entries;
  EXPECT_EQ(ReadDirPlus(fake).entries, first);
}

TEST_F(Listing, NamesThatDifferByCaseUnderTwoMirrorsAreOne) {
  const auto folder = MakeFolder(root, "backup");
  PutLocal("backup/Disk");
  const auto mount = boost::make_shared<SFakeBackend>(Guid(7));
  mount->Put("DISK", false);
  mount->Put("other", false);
  fs->ItemsTab()->MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
  EXPECT_EQ(List(folder), (std::vector<std::string>{"Disk", "other"}));
}

TEST_F(Listing, AMountThatIsLostMeanwhileIsAskedForNoMore) {
  const auto folder = MakeFolder(root, "backup");
  PutLocal("backup/notes");
  const auto mount = boost::make_shared<SFakeBackend>(Guid(7));
  mount->Put("known", false);
  fs->ItemsTab()->MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
  ASSERT_EQ(List(folder), (std::vector<std::string>{"known", "notes"}));
  const auto known = Find(folder, "known");
  for (const char* name : {"a", "b", "c", "d"})
    mount->Put(name, false);
  const int before = mount->opens;
  mount->After("OpenChild", [&] { mount->isAvailable = false; });
  EXPECT_EQ(List(folder), (std::vector<std::string>{"a", "known", "notes"}));
  EXPECT_EQ(mount->opens, before + 2) << "that of the second name told that it is lost";
  EXPECT_EQ(GetAttrs(known).status, NFS3_OK);
  mount->isAvailable = true;
  EXPECT_EQ(List(folder), (std::vector<std::string>{"a", "b", "c", "d", "known", "notes"}));
  EXPECT_EQ(Find(folder, "known"), known);
}

TEST_F(Listing, AMountThatIsAwayKeepsItsChildren) {
  const auto folder = MakeFolder(root, "backup");
  PutLocal("backup/notes");
  PutLocal("backup/old");
  const auto mount = boost::make_shared<SFakeBackend>(Guid(7));
  mount->Put("disk", false);
  fs->ItemsTab()->MountMirroredFolder(folder, Guid(7), CFakeFolder::Root(mount));
  EXPECT_EQ(List(folder), (std::vector<std::string>{"disk", "notes", "old"}));
  const auto disk = Find(folder, "disk");
  mount->isAvailable = false;
  std::filesystem::remove(local / "backup/old");
  EXPECT_EQ(List(folder), (std::vector<std::string>{"disk", "notes"}));
  EXPECT_EQ(Find(folder, "disk"), disk);
}

TEST_F(Listing, ALargeFolderListsInSeconds) {
  constexpr std::size_t Count = 20000;
  for (std::size_t i = 0; i < Count; ++i)
    backend->root->children["file" + std::to_string(i)] = std::make_shared<SFakeNode>();
  const auto fake = PublishFake(backend);
  const auto begin = std::chrono::steady_clock::now();
  const auto names = List(fake);
  const auto first = std::chrono::steady_clock::now();
  EXPECT_EQ(names.size(), Count);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(List(fake).size(), Count);
  const auto second = std::chrono::steady_clock::now();
  EXPECT_EQ(backend->enumerations, 2);
  const auto seconds = [](auto time) { return std::chrono::duration<double>(time).count(); };
  RecordProperty("first_listing_seconds", std::to_string(seconds(first - begin)));
  RecordProperty("second_listing_seconds", std::to_string(seconds(second - first)));
  // Read anew for each page it would take many times this.
  EXPECT_LT(seconds(second - begin), 100.0);
}

TEST_F(Listing, AnItemThatAnswersNothingDoesNotHideTheOthers) {
  const auto mute = [this](const std::string& name, bool isMute) {
    const std::lock_guard<std::mutex> lock(backend->mutex);
    backend->root->children[name]->isMute = isMute;
  };
  const auto fake = Fill(3);
  mute("n1001", true);
  EXPECT_EQ(List(fake), (std::vector<std::string>{"n1000", "n1002"}));
  mute("n1001", false);
  EXPECT_EQ(List(fake).size(), 3U);
  // Also when it has been seen before.
  mute("n1000", true);
  EXPECT_EQ(List(fake), (std::vector<std::string>{"n1001", "n1002"}));
  mute("n1000", false);
  EXPECT_EQ(List(fake).size(), 3U);
}

}  // namespace
}  // namespace test
