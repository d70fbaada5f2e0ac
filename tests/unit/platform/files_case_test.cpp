// Names that differ from an entry only by case, and what it costs that there is none.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/system_files.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using platform::location_t;
using std::chrono::steady_clock;

constexpr platform::file_request_t Create{platform::file_access_t::ReadWrite, platform::file_share_t::Read,
                                          platform::file_disposition_t::CreateAlways};

class FilesCase : public ::testing::Test {
 protected:
  FilesCase() : root(boost::make_shared<platform::root_folder_t>(dir.Path().string())) {}
  location_t At(const std::string& relative) const { return {root, relative}; }
  void Put(const std::string& name) { std::ofstream(dir / name) << name; }
  /// Many entries for the price of one file.
  void Fill(int count, const std::string& prefix) {
    Put(prefix + "0");
    for (int number = 1; number < count; ++number) {
      fs::create_hard_link(dir / (prefix + "0"), dir / (prefix + std::to_string(number)));
    }
  }
  std::string Spelling(const std::string& name) {
    platform::file_info_t info;
    return files.GetInfo(At(name), info) == error::Success ? info.name : std::string("-");
  }
  /// As if the folder had not changed for long.
  void Age(const std::string& name = ".") {
    const timespec times[2] = {{1500000000, 7}, {1500000000, 7}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir / name).c_str(), times, 0), 0);
  }
  std::uint64_t Reads() const { return files.Names().ReadCount(); }

  test::TempDir dir;
  platform::system_files_t files;
  boost::shared_ptr<platform::root_folder_t> root;
};

TEST_F(FilesCase, ExactNameWinsThenFirstInByteOrder) {
  Put("Name");
  EXPECT_EQ(Spelling("Name"), "Name");
  EXPECT_EQ(Spelling("nAME"), "Name");
  Put("NAME");
  EXPECT_EQ(Spelling("Name"), "Name");
  EXPECT_EQ(Spelling("name"), "NAME");
  EXPECT_EQ(Spelling("other"), "-");
}

TEST_F(FilesCase, OnlyAsciiLettersAreFolded) {
  Put("\xc3\x84");
  EXPECT_EQ(Spelling("\xc3\xa4"), "-");
  Put("a[");
  EXPECT_EQ(Spelling("a{"), "-");
  EXPECT_EQ(Spelling("A["), "a[");
}

TEST_F(FilesCase, OpeningAndCreatingGoToTheEntryThatIsThere) {
  Put("Name");
  boost::shared_ptr<platform::file_t> file;
  ASSERT_EQ(files.Open(At("NAME"), Create, file), error::Success);
  EXPECT_EQ(fs::file_size(dir / "Name"), 0U);
  EXPECT_FALSE(fs::exists(dir / "NAME"));
}

TEST_F(FilesCase, MissesInAnUnchangedFolderReadItOnce) {
  Put("Name");
  Age();
  for (int round = 0; round < 100; ++round) {
    EXPECT_EQ(Spelling("absent" + std::to_string(round)), "-");
  }
  EXPECT_EQ(Reads(), 1U);
  EXPECT_EQ(Spelling("name"), "Name");
}

TEST_F(FilesCase, ChangeByAnotherIsSeen) {
  Age();
  EXPECT_EQ(Spelling("name"), "-");
  Put("Name");
  EXPECT_EQ(Spelling("name"), "Name");
  fs::remove(dir / "Name");
  EXPECT_EQ(Spelling("name"), "-");
}

TEST_F(FilesCase, OwnChangesKeepWhatIsRemembered) {
  Fill(1000, "existing file number ");
  Age();
  EXPECT_EQ(Spelling("absent"), "-");
  ASSERT_EQ(Reads(), 1U);
  boost::shared_ptr<platform::file_t> file;
  const auto start = steady_clock::now();
  for (int number = 0; number < 20; ++number) {
    const std::string name = "New" + std::to_string(number);
    EXPECT_EQ(Spelling(name), "-");
    ASSERT_EQ(files.Open(At(name), Create, file), error::Success);
  }
  const std::uint64_t reads = Reads();
  // Reading again is allowed once in a while, not each time; a machine that stood still may have read more often.
  if (steady_clock::now() - start < std::chrono::milliseconds(10)) {
    EXPECT_LT(reads, 10U);
  }
  EXPECT_EQ(Spelling("new7"), "New7");
  ASSERT_EQ(files.DeleteFile(At("New7")), error::Success);
  EXPECT_EQ(Spelling("new7"), "-");
  ASSERT_EQ(files.CreateFolder(At("Folder")), error::Success);
  EXPECT_EQ(Spelling("FOLDER"), "Folder");
  ASSERT_EQ(files.Rename(At("Folder"), At("Moved")), error::Success);
  EXPECT_EQ(Spelling("moved"), "Moved");
  EXPECT_EQ(Spelling("folder"), "-");
}

TEST_F(FilesCase, ListingHidesLaterVariants) {
  for (const std::string name : {"b", "B", "a", "Bb", "bB"}) {
    Put(name);
  }
  platform::folder_listing_t listing;
  ASSERT_EQ(files.List(At(""), listing), error::Success);
  std::sort(listing.names.begin(), listing.names.end());
  std::sort(listing.hidden.begin(), listing.hidden.end());
  EXPECT_EQ(listing.names, (std::vector<std::string>{"B", "Bb", "a"}));
  EXPECT_EQ(listing.hidden, (std::vector<std::string>{"b", "bB"}));
}

TEST_F(FilesCase, LongListingIsWhole) {
  // More than one call to the system gives.
  Fill(1200, std::string(240, 'x'));
  platform::folder_listing_t listing;
  ASSERT_EQ(files.List(At(""), listing), error::Success);
  EXPECT_EQ(listing.names.size(), 1200U);
  EXPECT_TRUE(listing.hidden.empty());
}

/// The memory of one folder, under clocks of the test.
class FolderNames : public ::testing::Test {
 protected:
  FolderNames() : folder(::open(dir.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
  std::string Find(const std::string& name) {
    std::string spelling;
    EXPECT_EQ(names.Find(folder.Get(), name, spelling), error::Success);
    return spelling;
  }
  void Stamp(const timespec& modified) {
    const timespec times[2] = {modified, modified};
    ASSERT_EQ(::utimensat(AT_FDCWD, dir.Path().c_str(), times, 0), 0);
  }
  void Put(const std::string& name) { std::ofstream(dir / name) << name; }

  test::TempDir dir;
  platform::descriptor_t folder;
  timespec wall{2000, 0};
  steady_clock::time_point elapsed;
  steady_clock::duration step{};  // That each look at the clock takes.
  platform::folder_names_t names{{[this] { return wall; }, [this] { return elapsed += step; }}};
};

TEST_F(FolderNames, ReadingSoonAfterAChangeIsBelievedForAWhile) {
  Stamp({2000, 500'000'000});
  wall = {2000, 505'000'000};
  step = std::chrono::milliseconds(1);
  EXPECT_EQ(Find("name"), "");
  // Another change within the tick leaves the time as it was.
  Put("Name");
  Stamp({2000, 500'000'000});
  EXPECT_EQ(Find("name"), "");
  elapsed += std::chrono::seconds(1);
  EXPECT_EQ(Find("name"), "Name");
}

TEST_F(FolderNames, ASmallFolderIsBelievedForTwoMilliseconds) {
  Stamp({2000, 500'000'000});
  wall = {2000, 505'000'000};
  step = std::chrono::microseconds(1);
  EXPECT_EQ(Find("name"), "");
  Put("Name");
  Stamp({2000, 500'000'000});
  elapsed += std::chrono::milliseconds(1);
  EXPECT_EQ(Find("name"), "");
  elapsed += std::chrono::milliseconds(1);
  EXPECT_EQ(Find("name"), "Name");
}

TEST_F(FolderNames, ReadingLongAfterAChangeIsBelievedUntilTheNext) {
  Stamp({1000, 500'000'000});
  wall = {1001, 0};
  EXPECT_EQ(Find("name"), "");
  elapsed += std::chrono::hours(100);
  EXPECT_EQ(Find("name"), "");
  EXPECT_EQ(names.ReadCount(), 1U);
  Put("Name");
  Stamp({1000, 500'000'001});
  EXPECT_EQ(Find("name"), "Name");
}

TEST_F(FolderNames, WholeSecondsWantALongerWait) {
  Stamp({1000, 0});
  wall = {1001, 0};
  EXPECT_EQ(Find("name"), "");
  Put("Name");
  Stamp({1000, 0});
  elapsed += std::chrono::hours(1);
  EXPECT_EQ(Find("name"), "Name");
}

TEST_F(FolderNames, ChangeTimeInTheFutureIsNotBelievedForever) {
  Stamp({5000, 1});
  wall = {1000, 0};
  EXPECT_EQ(Find("name"), "");
  Put("Name");
  Stamp({5000, 1});
  elapsed += std::chrono::hours(1);
  EXPECT_EQ(Find("name"), "Name");
}

TEST_F(FolderNames, OwnChangeIsAddedWithoutReading) {
  Stamp({1000, 5});
  wall = {1500, 0};
  step = std::chrono::milliseconds(10);
  EXPECT_EQ(Find("name"), "");
  const auto change = names.BeginChange(folder.Get());
  Put("Own");
  names.EndChange(folder.Get(), change, "Own", {});
  EXPECT_EQ(Find("name"), "");
  EXPECT_EQ(names.ReadCount(), 1U);
  EXPECT_EQ(Find("OWN"), "Own");
}

TEST_F(FolderNames, OwnChangesThatOverlapAreBothKept) {
  Stamp({1000, 5});
  wall = {1500, 0};
  step = std::chrono::milliseconds(10);
  EXPECT_EQ(Find("name"), "");
  const auto first = names.BeginChange(folder.Get());
  Put("First");
  const auto second = names.BeginChange(folder.Get());
  Put("Second");
  names.EndChange(folder.Get(), second, "Second", {});
  names.EndChange(folder.Get(), first, "First", {});
  EXPECT_EQ(Find("name"), "");
  EXPECT_EQ(names.ReadCount(), 1U);
  EXPECT_EQ(Find("first"), "First");
  EXPECT_EQ(Find("second"), "Second");
}

TEST_F(FolderNames, ChangeByAnotherBeforeOursIsReadAfterwards) {
  Stamp({1000, 5});
  wall = {1500, 0};
  EXPECT_EQ(Find("name"), "");
  Put("Name");
  const auto change = names.BeginChange(folder.Get());
  Put("Own");
  names.EndChange(folder.Get(), change, "Own", {});
  EXPECT_EQ(Find("name"), "Name");
}

TEST_F(FolderNames, ExactNameThatIsThereIsNotReplacedByAVariant) {
  Put("Name");
  Put("name");
  EXPECT_EQ(Find("name"), "");
  EXPECT_EQ(Find("NAME"), "Name");
}

}  // namespace
