#include "foundation/dump/dump_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace crash {
namespace {

namespace fs = std::filesystem;
using result_t = dump_folder_t::result_t;

class recording_sink_t : public old_dump_sink_t {
 public:
  void Deleted(std::string_view path) noexcept override { deleted.push_back(fs::path(path).filename()); }
  void NotDeleted(std::string_view path) noexcept override { kept.push_back(fs::path(path).filename()); }
  std::vector<std::string> deleted;
  std::vector<std::string> kept;
};

class DumpFolderTest : public testing::Test {
 protected:
  /// Modified so many seconds after a fixed moment.
  void Make(const std::string& name, int seconds = 0) {
    std::ofstream(dir_ / name) << "dump";
    const timespec times[2] = {{1000000000 + seconds, 0}, {1000000000 + seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (dir_ / name).c_str(), times, 0), 0);
  }
  std::string Next(result_t expected = result_t::Ok) {
    const std::string folder = dir_.Path().string();
    path_text_t path;
    EXPECT_EQ(dump_folder_t(folder.c_str(), "NFS_crash_", "mdmp").NextPath(sink_, path, failure_), expected)
        << failure_.Text();
    return fs::path(path.View()).filename();
  }

  test::TempDir dir_;
  recording_sink_t sink_;
  failure_t failure_;
};

TEST_F(DumpFolderTest, TheFirstIsOne) {
  EXPECT_EQ(Next(), "NFS_crash_1.mdmp");
}

TEST_F(DumpFolderTest, FollowsTheHighestAndNotTheNumber) {
  Make("NFS_crash_3.mdmp");
  Make("NFS_crash_17.mdmp");
  Make("NFS_crash_9.mdmp");
  EXPECT_EQ(Next(), "NFS_crash_18.mdmp");
}

TEST_F(DumpFolderTest, CountsItsOwnAlone) {
  for (const char* name : {"NFS_crash_30.txt", "XNFS_crash_31.mdmp", "NFS_crash_32.mdmpx", "NFS_crash_.mdmp",
                           "NFS_crash_3x.mdmp", "NFS_crash_007.mdmp", "NFS_crash_34mdmp", "NFS_crash_-3.mdmp",
                           "NFS_crash_99999999999999999999.mdmp", "NFS_crash_4 (copy).mdmp"})
    Make(name);
  fs::create_directory(dir_ / "NFS_crash_40.mdmp");
  fs::create_symlink("NFS_crash_30.txt", dir_ / "NFS_crash_41.mdmp");
  EXPECT_EQ(Next(), "NFS_crash_1.mdmp");
}

TEST_F(DumpFolderTest, ANameThatIsTakenByNoFileIsPassedOver) {
  Make("NFS_crash_1.mdmp");
  fs::create_directory(dir_ / "NFS_crash_2.mdmp");
  EXPECT_EQ(Next(), "NFS_crash_3.mdmp");
}

TEST_F(DumpFolderTest, NineteenAreNotTooMany) {
  for (int number = 1; number <= 19; ++number)
    Make("NFS_crash_" + std::to_string(number) + ".mdmp");
  EXPECT_EQ(Next(), "NFS_crash_20.mdmp");
  EXPECT_TRUE(sink_.deleted.empty());
}

TEST_F(DumpFolderTest, TheOldestByTimeGoFirst) {
  for (int number = 1; number <= 22; ++number)
    Make("NFS_crash_" + std::to_string(number) + ".mdmp", 1000 - number);
  EXPECT_EQ(Next(), "NFS_crash_20.mdmp");
  EXPECT_EQ(sink_.deleted, (std::vector<std::string>{"NFS_crash_22.mdmp", "NFS_crash_21.mdmp", "NFS_crash_20.mdmp"}));
}

TEST_F(DumpFolderTest, OfTheSameTimeTheLowestNumberGoesFirst) {
  for (int number = 5; number <= 24; ++number)
    Make("NFS_crash_" + std::to_string(number) + ".mdmp");
  Next();
  EXPECT_EQ(sink_.deleted, (std::vector<std::string>{"NFS_crash_5.mdmp"}));
}

TEST_F(DumpFolderTest, TenThousandIsTheLast) {
  Make("NFS_crash_9999.mdmp");
  EXPECT_EQ(Next(), "NFS_crash_10000.mdmp");
  Make("NFS_crash_10000.mdmp");
  Next(result_t::NoName);
  EXPECT_EQ(failure_.Text(),
            "All dump identifiers are reserved.\nCannot define the name of the next crash dump. Dumps folder: [" +
                dir_.Path().string() + "].");
}

TEST_F(DumpFolderTest, MakesTheFolder) {
  const std::string folder = dir_ / "a/b";
  path_text_t path;
  EXPECT_EQ(dump_folder_t(folder.c_str(), "NFS_crash_", "mdmp").NextPath(sink_, path, failure_), result_t::Ok);
  EXPECT_TRUE(fs::is_directory(folder));
}

TEST_F(DumpFolderTest, AFileInTheWayIsAFailure) {
  Make("file");
  const std::string folder = dir_ / "file/below";
  path_text_t path;
  EXPECT_EQ(dump_folder_t(folder.c_str(), "NFS_crash_", "mdmp").NextPath(sink_, path, failure_), result_t::NoFolder);
  EXPECT_NE(failure_.Text().find("Failed to create folder [" + folder + "]."), std::string_view::npos);
}

TEST_F(DumpFolderTest, APathThatDoesNotFitIsAFailure) {
  const std::string stem(4096, 'x');
  const std::string folder = dir_.Path().string();
  path_text_t path;
  EXPECT_EQ(dump_folder_t(folder.c_str(), stem, "mdmp").NextPath(sink_, path, failure_), result_t::NoName);
}

}  // namespace
}  // namespace crash
