// Children by the hash of their places.
#include "vfs/table/listing_index.h"

#include <array>
#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "platform/text.h"
#include "table_fixture.h"

namespace test {
namespace {

class ListingIndexTest : public testing::Test {
 protected:
  using place_t = std::pair<std::uint64_t, std::string>;

  static SListingPlace ViewOf(const place_t& place) { return {place.first, place.second}; }
  void Insert(std::uint64_t fid, const place_t& place) {
    auto rec = std::make_unique<CNfsItemRec>(place.second, place.first, nullptr, file_);
    index_.Insert(fid, *rec);
    there_[{place.first, platform::FoldAscii(place.second)}] = {fid, std::move(rec)};
  }
  void Erase(const place_t& place) {
    index_.Erase(ViewOf(place));
    there_.erase({place.first, platform::FoldAscii(place.second)});
  }
  void ExpectAsTold(const place_t& place) const {
    const CNfsListingIndex::SEntry* const found = index_.Find(ViewOf(place));
    const auto told = there_.find({place.first, platform::FoldAscii(place.second)});
    ASSERT_EQ(found != nullptr, told != there_.end()) << place.first << ' ' << place.second;
    if (found == nullptr)
      return;
    EXPECT_EQ(found->fid, told->second.first) << place.second;
    EXPECT_EQ(found->rec, told->second.second.get()) << place.second;
  }

  const boost::shared_ptr<IFsItem> file_ =
      boost::make_shared<CFakeFile>(boost::make_shared<SFakeBackend>(), std::make_shared<SFakeNode>(), "file");
  std::map<place_t, std::pair<std::uint64_t, std::unique_ptr<CNfsItemRec>>> there_;
  CNfsListingIndex index_;
};

TEST_F(ListingIndexTest, FindsInAnyCaseAndInItsFolderAlone) {
  Insert(7, {1, "Disk.vmdk"});
  ExpectAsTold({1, "disk.VMDK"});
  ExpectAsTold({2, "Disk.vmdk"});
  ExpectAsTold({1, "Disk.vmd"});
  ExpectAsTold({1, ""});
  ASSERT_NE(index_.Find({1, "DISK.VMDK"}), nullptr);
  Erase({1, "DISK.vmdk"});
  EXPECT_EQ(index_.Find({1, "Disk.vmdk"}), nullptr);
  EXPECT_EQ(index_.Size(), 0U);
}

TEST_F(ListingIndexTest, AnEntryMayBeGivenAnotherRecord) {
  Insert(7, {1, "a"});
  const CNfsItemRec other("A", 1, nullptr, file_);
  *index_.Find({1, "a"}) = {8, &other};
  const CNfsListingIndex::SEntry* const found = std::as_const(index_).Find({1, "a"});
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->fid, 8U);
  EXPECT_EQ(found->rec, &other);
  EXPECT_EQ(index_.Size(), 1U);
}

TEST_F(ListingIndexTest, ErasingWhatIsNotThereChangesNothing) {
  Insert(7, {1, "a"});
  index_.Erase({1, "b"});
  index_.Erase({2, "a"});
  ExpectAsTold({1, "a"});
  EXPECT_EQ(index_.Size(), 1U);
}

/// Whatever comes and goes, and however the slots of several meet: what is told is there, and nothing else.
TEST_F(ListingIndexTest, TellsTheSameAsATree) {
  std::mt19937 random(20);
  const auto upTo = [&random](std::uint64_t limit) { return random() % limit; };
  const auto anyPlace = [&] {
    return place_t{upTo(4), (upTo(2) == 0 ? "name " : "NAME ") + std::to_string(upTo(2000))};
  };
  std::uint64_t fid = 0;
  // Mostly growing, mostly shrinking, growing again.
  for (const std::uint64_t inserts : {8U, 2U, 7U}) {
    for (int step = 0; step < 8000; ++step) {
      const place_t place = anyPlace();
      if (upTo(10) >= inserts) {
        Erase(place);
      } else if (index_.Find(ViewOf(place)) == nullptr) {
        Insert(++fid, place);
      }
      ASSERT_NO_FATAL_FAILURE(ExpectAsTold(place));
      ASSERT_EQ(index_.Size(), there_.size());
    }
    EXPECT_GT(index_.Size(), 100U);
    for (std::uint64_t parent = 0; parent < 4; ++parent) {
      for (int number = 0; number < 2000; ++number)
        ASSERT_NO_FATAL_FAILURE(ExpectAsTold({parent, "Name " + std::to_string(number)}));
    }
  }
}

TEST_F(ListingIndexTest, RoomThatIsMadeKeepsWhatIsThere) {
  Insert(7, {1, "a"});
  index_.Reserve(5000);
  index_.Reserve(0);
  ExpectAsTold({1, "a"});
  for (std::uint64_t i = 0; i < 5000; ++i)
    Insert(100 + i, {2, std::to_string(i)});
  for (std::uint64_t i = 0; i < 5000; ++i)
    ASSERT_NO_FATAL_FAILURE(ExpectAsTold({2, std::to_string(i)}));
}

TEST_F(ListingIndexTest, ForeseesWhatIsThere) {
  for (std::uint64_t i = 0; i < 100; ++i)
    Insert(100 + i, {2, "Name " + std::to_string(i)});
  std::vector<std::string> names;
  for (std::size_t i = 0; i < CNfsListingIndex::MostForeseen; ++i)
    names.push_back((i % 2 == 0 ? "NAME " : "no name ") + std::to_string(i));
  std::vector<SListingPlace> places;
  for (const std::string& name : names)
    places.push_back({2, name});
  std::array<const CNfsItemRec*, CNfsListingIndex::MostForeseen> records{};
  index_.Foresee(places, records);
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (i % 2 == 0) {
      EXPECT_EQ(records[i], index_.Find(places[i])->rec) << i;
    } else {
      EXPECT_EQ(records[i], nullptr) << i;
    }
  }
}

TEST_F(TableFixture, ForeseesFilesAlone) {
  table.AddItem(root, "disk", MakeFile("disk"));
  table.AddItem(root, "other", MakeFile("other"));
  table.AddItem(root, "folder", MakeFolder("folder"));
  const std::array<SListingPlace, 4> places = {
      {{root, "folder"}, {root, "missing"}, {root, "DISK"}, {root + 1, "other"}}};
  table.Foresee(places);
  EXPECT_EQ(host->foreseen, 1);
  table.Foresee({});
  EXPECT_EQ(host->foreseen, 1);
}

TEST_F(TableFixture, IsLargeWithThousandsOfItemsAndUntilTheyAreGone) {
  std::vector<SNfsChild> children;
  for (int i = 0; i < 5000; ++i) {
    const std::string name = "f" + std::to_string(i);
    children.push_back({name, InvalidFid, MakeFile(name)});
  }
  EXPECT_FALSE(table.IsLarge());
  table.AddItems(root, children);
  EXPECT_TRUE(table.IsLarge());
  for (const SNfsChild& child : children)
    table.RemoveItem(child.fid);
  EXPECT_FALSE(table.IsLarge());
}

}  // namespace
}  // namespace test
