#include "foundation/dump/new_dump.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/temp_dir.h"

namespace crash {
namespace {

namespace fs = std::filesystem;

TEST(NewDumpTest, HasItsNameWhenItIsWhole) {
  const test::TempDir dir;
  const std::string path = dir / "dump";
  failure_t failure;
  new_dump_t dump(path.c_str());
  ASSERT_TRUE(dump.Create());
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(write(dump.Descriptor(), "whole", 5), 5);
  EXPECT_TRUE(dump.Finish(failure));
  EXPECT_EQ(fs::file_size(path), 5U);
  EXPECT_FALSE(fs::exists(path + ".part"));
}

TEST(NewDumpTest, WithoutAnEndItLeavesNothing) {
  const test::TempDir dir;
  const std::string path = dir / "dump";
  {
    new_dump_t dump(path.c_str());
    ASSERT_TRUE(dump.Create());
  }
  EXPECT_TRUE(fs::is_empty(dir.Path()));
}

TEST(NewDumpTest, TakesNoNameFromAnother) {
  const test::TempDir dir;
  const std::string path = dir / "dump";
  failure_t failure;
  new_dump_t dump(path.c_str());
  ASSERT_TRUE(dump.Create());
  std::ofstream(path) << "older";
  EXPECT_FALSE(dump.Finish(failure));
  EXPECT_EQ(fs::file_size(path), 5U);
  EXPECT_FALSE(fs::exists(path + ".part"));
  EXPECT_NE(failure.Text().find("Failed to rename file [" + path + ".part]."), std::string_view::npos);
}

TEST(NewDumpTest, FollowsNoLink) {
  const test::TempDir dir;
  const std::string path = dir / "dump";
  std::ofstream(dir / "other") << "stays";
  fs::create_symlink("other", path + ".part");
  new_dump_t dump(path.c_str());
  EXPECT_TRUE(dump.Create());
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path + ".part")));
  EXPECT_EQ(fs::file_size(dir / "other"), 5U);
}

TEST(NewDumpTest, IsForItsOwnerAloneWhateverLayThere) {
  const test::TempDir dir;
  const std::string path = dir / "dump";
  const std::string part = path + ".part";
  std::ofstream(part) << "left";
  fs::permissions(part, fs::perms::all);
  std::ifstream reader(part);
  const mode_t old = ::umask(0);
  new_dump_t dump(path.c_str());
  EXPECT_TRUE(dump.Create());
  ::umask(old);
  EXPECT_EQ(fs::status(part).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(write(dump.Descriptor(), "secret", 6), 6);
  // Who had the other file open sees nothing of it.
  std::string seen;
  reader >> seen;
  EXPECT_EQ(seen, "left");
}

TEST(NewDumpTest, WritesIntoNoFolderOfItsName) {
  const test::TempDir dir;
  const std::string path = dir / "dump";
  fs::create_directory(path + ".part");
  new_dump_t dump(path.c_str());
  EXPECT_FALSE(dump.Create());
  EXPECT_EQ(errno, EEXIST);
}

}  // namespace
}  // namespace crash
