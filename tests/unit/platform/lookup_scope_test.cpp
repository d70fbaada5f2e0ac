// Folders that were met stay open while a scope lives, and no longer.
#include "platform/lookup_scope.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

#include "platform/system_files.h"
#include "support/manual_clock.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using platform::location_t;
using platform::lookup_scope_t;

/// Descriptors of the process that are open on the folder.
std::ptrdiff_t OpenOn(const fs::path& folder) {
  struct stat wanted {};
  EXPECT_EQ(::stat(folder.c_str(), &wanted), 0);
  return std::count_if(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator(), [&wanted](const auto& entry) {
    struct stat status {};
    return ::stat(entry.path().c_str(), &status) == 0 && status.st_ino == wanted.st_ino &&
           status.st_dev == wanted.st_dev;
  });
}

class LookupScope : public ::testing::Test {
 protected:
  LookupScope() {
    fs::create_directories(dir.Path() / "root" / "a" / "b");
    fs::create_directory(dir.Path() / "outside");
    for (const char* const name : {"root/a/file", "root/a/b/file", "outside/file"}) {
      std::ofstream(dir.Path() / name) << name;
    }
    root = boost::make_shared<platform::root_folder_t>((dir.Path() / "root").string());
  }
  location_t At(const std::string& relative) const { return {root, relative}; }
  fs::path Inside(const std::string& name) const { return dir.Path() / "root" / name; }
  platform::error_t Get(const std::string& relative) { return files.GetInfo(At(relative), info); }
  bool IsMet(const std::string& relative) const {
    return lookup_scope_t::IsOpen() && lookup_scope_t::Find(*root, relative) != nullptr;
  }

  test::TempDir dir;
  test::ManualClock clock;
  test::ScopedClock scopedClock{clock};
  platform::system_files_t files;
  boost::shared_ptr<platform::root_folder_t> root;
  platform::file_info_t info;
};

TEST_F(LookupScope, NothingIsKeptWithoutOne) {
  ASSERT_EQ(Get("a/file"), error::Success);
  EXPECT_FALSE(IsMet("a"));
  EXPECT_EQ(OpenOn(Inside("a")), 0);
}

TEST_F(LookupScope, KeepsFoldersUntilItEnds) {
  {
    const lookup_scope_t scope;
    ASSERT_EQ(Get("a/b/file"), error::Success);
    EXPECT_TRUE(IsMet("a/b"));
    EXPECT_TRUE(IsMet(""));
    EXPECT_FALSE(IsMet("a"));
    ASSERT_EQ(Get("a/b/missing"), error::FileNotFound);
    EXPECT_EQ(OpenOn(Inside("a/b")), 1);
  }
  EXPECT_FALSE(IsMet("a/b"));
  EXPECT_EQ(OpenOn(Inside("a/b")), 0);
}

TEST_F(LookupScope, AnInnerOneJoinsTheOuter) {
  const lookup_scope_t outer;
  {
    const lookup_scope_t inner;
    ASSERT_EQ(Get("a/file"), error::Success);
  }
  EXPECT_TRUE(IsMet("a"));
}

TEST_F(LookupScope, IsOfOneThread) {
  const lookup_scope_t scope;
  ASSERT_EQ(Get("a/file"), error::Success);
  std::thread([this] {
    EXPECT_FALSE(lookup_scope_t::IsOpen());
    EXPECT_FALSE(IsMet("a"));
    const lookup_scope_t own;
    EXPECT_FALSE(IsMet("a"));
  }).join();
}

TEST_F(LookupScope, AFolderThatWasMetTellsOfItself) {
  platform::file_info_t without;
  ASSERT_EQ(files.GetInfo(At("a/b"), without), error::Success);
  const lookup_scope_t scope;
  ASSERT_EQ(Get("a/b/file"), error::Success);
  ASSERT_EQ(Get("a/b"), error::Success);
  EXPECT_EQ(info.id, without.id);
  EXPECT_EQ(info.name, "b");
  EXPECT_TRUE(info.attributes.IsDirectory());
}

TEST_F(LookupScope, WhatOthersPutInAFoldersPlaceIsSeenAfterTheLimit) {
  const lookup_scope_t scope;
  ASSERT_EQ(Get("a/file"), error::Success);
  fs::rename(Inside("a"), Inside("former"));
  fs::create_directory(Inside("a"));
  ASSERT_EQ(Get("a/file"), error::Success);
  clock.Advance(lookup_scope_t::LimitMilliseconds);
  EXPECT_EQ(Get("a/file"), error::FileNotFound);
  EXPECT_FALSE(IsMet("a"));
}

TEST_F(LookupScope, ALinkThatLeadsOutIsRefusedAfterTheLimit) {
  const lookup_scope_t scope;
  ASSERT_EQ(Get("a/file"), error::Success);
  fs::rename(Inside("a"), Inside("former"));
  fs::create_directory_symlink(dir.Path() / "outside", Inside("a"));
  clock.Advance(lookup_scope_t::LimitMilliseconds);
  EXPECT_EQ(Get("a/file"), error::AccessDenied);
}

TEST_F(LookupScope, ItsOwnRenamesAreSeenAtOnce) {
  const lookup_scope_t scope;
  ASSERT_EQ(Get("a/b/file"), error::Success);
  ASSERT_EQ(files.Rename(At("a"), At("c")), error::Success);
  EXPECT_EQ(Get("c/b/file"), error::Success);
  EXPECT_NE(Get("a/b/file"), error::Success);
}

TEST_F(LookupScope, AFolderThatItRemovedIsGone) {
  const lookup_scope_t scope;
  ASSERT_EQ(Get("a/b/file"), error::Success);
  ASSERT_EQ(files.DeleteFile(At("a/b/file")), error::Success);
  ASSERT_EQ(files.RemoveFolder(At("a/b")), error::Success);
  EXPECT_EQ(Get("a/b"), error::FileNotFound);
  ASSERT_EQ(files.CreateFolder(At("a/b")), error::Success);
  EXPECT_EQ(Get("a/b"), error::Success);
  EXPECT_EQ(Get("a/b/file"), error::FileNotFound);
}

TEST_F(LookupScope, ALocationWithoutLinksIsResolvedAnew) {
  const lookup_scope_t scope;
  fs::create_directory_symlink("a", Inside("link"));
  ASSERT_EQ(Get("link/file"), error::Success);
  ASSERT_TRUE(IsMet("link"));
  EXPECT_NE(files.GetInfo(At("link").WithoutLinks().Child("file"), info), error::Success);
}

TEST_F(LookupScope, KeepsAFewFoldersOnly) {
  for (int i = 0; i < 50; ++i) {
    fs::create_directory(Inside("many" + std::to_string(i)));
  }
  const lookup_scope_t scope;
  const auto before = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Get("many" + std::to_string(i) + "/file"), error::FileNotFound);
  }
  const auto after = std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  EXPECT_LE(after - before, 10);
}

}  // namespace
