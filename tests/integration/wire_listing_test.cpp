// READDIRPLUS over the wire.
#include <algorithm>
#include <filesystem>
#include <set>

#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
namespace fs = std::filesystem;

class ListingTest : public CWireTest {
 protected:
  void MakeFiles(int count) {
    for (int i = 0; i < count; ++i)
      WriteFile(HostPath("file" + std::to_string(1000 + i)), "");
  }
};
KELVO_WIRE_SUITE(ListingTest);

TEST_P(ListingTest, AnEmptyFolderEndsAtCookieZero) {
  const SPage page = Client().ReadDirPlus(root_, 0);
  EXPECT_EQ(page.status, Ok);
  EXPECT_TRUE(page.entries.empty());
  EXPECT_TRUE(page.eof);
}

TEST_P(ListingTest, TenEntriesAreOnePageAndElevenAreTwo) {
  MakeFiles(10);
  SPage page = Client().ReadDirPlus(root_, 0);
  EXPECT_EQ(page.entries.size(), 10U);
  EXPECT_TRUE(page.eof);
  WriteFile(HostPath("z"), "");
  page = Client().ReadDirPlus(root_, 0);
  EXPECT_EQ(page.entries.size(), 10U);
  EXPECT_FALSE(page.eof);
  page = Client().ReadDirPlus(root_, 10);
  ASSERT_EQ(page.entries.size(), 1U);
  EXPECT_EQ(page.entries[0].name, "z");
  EXPECT_EQ(page.entries[0].cookie, 11U);
  EXPECT_TRUE(page.eof);
}

TEST_P(ListingTest, TwentyFiveEntriesComeInPagesOfTenWhateverTheClientAllows) {
  MakeFiles(25);
  for (const std::uint32_t maxCount : {100U, 1U << 20}) {
    std::size_t seen = 0;
    for (const auto& [cookie, size, eof] :
         {std::tuple<std::uint64_t, std::size_t, bool>{0, 10, false}, {10, 10, false}, {20, 5, true}}) {
      const SPage page = Client().ReadDirPlus(root_, cookie, maxCount);
      ASSERT_EQ(page.entries.size(), size);
      EXPECT_EQ(page.eof, eof);
      for (const SEntry& entry : page.entries) {
        EXPECT_EQ(entry.name, "file" + std::to_string(1000 + seen));
        EXPECT_EQ(entry.cookie, ++seen);
      }
    }
  }
}

TEST_P(ListingTest, ACookieMayStandAnywhereAndBeyondTheEndThereIsNothing) {
  MakeFiles(25);
  SPage page = Client().ReadDirPlus(root_, 7);
  ASSERT_EQ(page.entries.size(), 10U);
  EXPECT_EQ(page.entries[0].name, "file1007");
  for (const std::uint64_t cookie : {25ULL, 26ULL, 1ULL << 32, ~0ULL}) {
    page = Client().ReadDirPlus(root_, cookie);
    EXPECT_EQ(page.status, Ok);
    EXPECT_TRUE(page.entries.empty());
    EXPECT_TRUE(page.eof);
  }
}

TEST_P(ListingTest, EntriesAreSortedWithoutRegardToCase) {
  for (const char* name : {"b", "A", "c", "B1", "a0"})
    WriteFile(HostPath(name), "");
  std::vector<std::string> names;
  for (const SEntry& entry : Client().List(root_))
    names.push_back(entry.name);
  EXPECT_EQ(names, (std::vector<std::string>{"A", "a0", "b", "B1", "c"}));
}

TEST_P(ListingTest, OfNamesThatDifferOnlyByCaseTheFirstInByteOrderIsSeen) {
  for (const char* name : {"same", "Same", "SAME"})
    WriteFile(HostPath(name), name);
  const std::vector<SEntry> entries = Client().List(root_);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].name, "SAME");
}

TEST_P(ListingTest, HandlesOfAListingAreThoseOfLookup) {
  MakeFiles(12);
  fs::create_directory(HostPath("folder"));
  for (const SEntry& entry : Client().List(root_)) {
    EXPECT_EQ(entry.handle, HandleOf(entry.name));
    SAttributes attributes;
    EXPECT_EQ(Client().GetAttr(entry.handle, &attributes), Ok);
    EXPECT_EQ(attributes.fileid, entry.fileid);
  }
}

TEST_P(ListingTest, ANewListingShowsWhatTheHostChanged) {
  MakeFiles(15);
  ASSERT_EQ(Client().List(root_).size(), 15U);
  const bytes_t gone = HandleOf("file1003");
  fs::remove(HostPath("file1003"));
  WriteFile(HostPath("fresh"), "");
  const std::vector<SEntry> entries = Client().List(root_);
  EXPECT_EQ(entries.size(), 15U);
  EXPECT_TRUE(std::any_of(entries.begin(), entries.end(), [](const SEntry& e) { return e.name == "fresh"; }));
  EXPECT_FALSE(std::any_of(entries.begin(), entries.end(), [](const SEntry& e) { return e.name == "file1003"; }));
  EXPECT_EQ(Client().GetAttr(gone), Stale);
}

TEST_P(ListingTest, TwoClientsPageTheSameFolderAtOnce) {
  MakeFiles(40);
  CNfsClient other;
  std::uint64_t mine = 0;
  std::uint64_t theirs = 0;
  std::size_t mySize = 0;
  std::size_t theirSize = 0;
  bool done = false;
  while (!done) {
    const SPage a = Client().ReadDirPlus(root_, mine);
    const SPage b = other.ReadDirPlus(root_, theirs);
    mySize += a.entries.size();
    theirSize += b.entries.size();
    mine = a.entries.back().cookie;
    theirs = b.entries.back().cookie;
    ASSERT_EQ(a.eof, b.eof);
    done = a.eof;
  }
  EXPECT_EQ(mySize, 40U);
  EXPECT_EQ(theirSize, 40U);
}

TEST_P(ListingTest, AnUnknownFolderIs2AndAFile10006) {
  WriteFile(HostPath("file"), "");
  const bytes_t file = HandleOf("file");
  EXPECT_EQ(Client().ReadDirPlus(bytes_t(23, '\x44'), 0).status, NoEntry);
  EXPECT_EQ(Client().ReadDirPlus(file, 0).status, ServerFault);
}

TEST_P(ListingTest, NamesThatAreNotUtf8AreNoTroubleToTheOthers) {
  WriteFile(HostPath("good"), "");
  WriteFile(HostPath("bad\xff\xfe"), "");
  WriteFile(HostPath("gr\xc3\xbc\xc3\x9f"), "");
  const SPage page = Client().ReadDirPlus(root_, 0);
  // A name that cannot be told apart from broken text fails the listing as a conversion error, or is not in it.
  if (page.status == Ok) {
    std::set<std::string> names;
    for (const SEntry& entry : page.entries)
      names.insert(entry.name);
    EXPECT_EQ(names, (std::set<std::string>{"good", "gr\xc3\xbc\xc3\x9f"}));
  } else {
    EXPECT_EQ(page.status, NoTranslation);
  }
  EXPECT_EQ(Client().Lookup(root_, "good"), Ok);
}

TEST_P(ListingTest, AHundredThousandEntriesAreAllThereOnceAndAgain) {
  for (int i = 0; i < 100000; ++i)
    WriteFile(HostPath("f" + std::to_string(i)), "");
  for (int round = 0; round < 2; ++round) {
    const std::vector<SEntry> entries = Client().List(root_);
    EXPECT_EQ(entries.size(), 100000U);
    std::set<std::string> names;
    std::set<std::uint64_t> fids;
    for (const SEntry& entry : entries) {
      names.insert(entry.name);
      fids.insert(entry.fileid);
    }
    EXPECT_EQ(names.size(), 100000U);
    EXPECT_EQ(fids.size(), 100000U);
  }
}

}  // namespace
