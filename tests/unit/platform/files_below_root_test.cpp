// Nothing below a root leads outside it, and a root is found again.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/system_files.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using platform::file_access_t;
using platform::file_disposition_t;
using platform::file_request_t;
using platform::file_share_t;
using platform::location_t;

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string ReadText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class FilesBelowRoot : public ::testing::Test {
 protected:
  FilesBelowRoot() {
    fs::create_directory(dir.Path() / "root");
    fs::create_directory(dir.Path() / "outside");
    WriteText(dir.Path() / "outside" / "secret", "secret");
    root = boost::make_shared<platform::root_folder_t>((dir.Path() / "root").string());
  }
  location_t At(const std::string& relative) const { return {root, relative}; }
  fs::path Inside(const std::string& name) const { return dir.Path() / "root" / name; }
  platform::error_t Open(const std::string& relative, file_request_t request = {}) {
    boost::shared_ptr<platform::file_t> file;
    return files.Open(At(relative), request, file);
  }

  test::TempDir dir;
  platform::system_files_t files;
  boost::shared_ptr<platform::root_folder_t> root;
  platform::file_info_t info;
};

TEST_F(FilesBelowRoot, AbsoluteLinkOutIsRefused) {
  fs::create_symlink(dir.Path() / "outside" / "secret", Inside("leak"));
  EXPECT_EQ(files.GetInfo(At("leak"), info), error::AccessDenied);
  EXPECT_EQ(Open("leak"), error::AccessDenied);
  EXPECT_EQ(Open("leak", {file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::CreateAlways}),
            error::AccessDenied);
  EXPECT_EQ(files.SetReadOnly(At("leak"), true), error::AccessDenied);
  EXPECT_EQ(ReadText(dir.Path() / "outside" / "secret"), "secret");
}

TEST_F(FilesBelowRoot, RelativeLinkOutIsRefused) {
  fs::create_symlink("../outside", Inside("leak"));
  EXPECT_EQ(files.GetInfo(At("leak"), info), error::AccessDenied);
  EXPECT_EQ(files.GetInfo(At("leak/secret"), info), error::AccessDenied);
  EXPECT_EQ(Open("leak/new", {file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::CreateAlways}),
            error::AccessDenied);
  EXPECT_EQ(files.DeleteFile(At("leak/secret")), error::AccessDenied);
  EXPECT_EQ(files.CreateFolder(At("leak/new")), error::AccessDenied);
  WriteText(Inside("own"), "own");
  EXPECT_EQ(files.Rename(At("own"), At("leak/own")), error::AccessDenied);
  platform::folder_listing_t listing;
  EXPECT_EQ(files.List(At("leak"), listing), error::AccessDenied);
  EXPECT_TRUE(listing.names.empty());
  EXPECT_EQ(ReadText(dir.Path() / "outside" / "secret"), "secret");
  EXPECT_FALSE(fs::exists(dir.Path() / "outside" / "new"));
}

TEST_F(FilesBelowRoot, DotsInThePathDoNotEscape) {
  EXPECT_EQ(files.GetInfo(At("../outside/secret"), info), error::AccessDenied);
  EXPECT_EQ(files.GetInfo(At("a/../../outside"), info), error::FileNotFound);
}

TEST_F(FilesBelowRoot, LinkThatStaysInsideIsFollowed) {
  fs::create_directory(Inside("folder"));
  WriteText(Inside("folder") / "file", "text");
  fs::create_symlink("folder", Inside("link"));
  fs::create_symlink("../folder/file", Inside("folder") / "up");
  EXPECT_EQ(files.GetInfo(At("link"), info), error::Success);
  EXPECT_TRUE(info.attributes.IsDirectory());
  EXPECT_EQ(files.GetInfo(At("link/up"), info), error::Success);
  EXPECT_EQ(info.attributes.Size(), 4U);
}

TEST_F(FilesBelowRoot, DeletingALinkLeavesItsTarget) {
  fs::create_symlink(dir.Path() / "outside" / "secret", Inside("leak"));
  EXPECT_EQ(files.FindEntry(At("leak"), info), error::Success);
  EXPECT_TRUE(info.isLink);
  EXPECT_FALSE(info.attributes.IsDirectory());
  EXPECT_EQ(files.DeleteFile(At("leak")), error::Success);
  EXPECT_FALSE(fs::is_symlink(Inside("leak")));
  EXPECT_TRUE(fs::exists(dir.Path() / "outside" / "secret"));
}

TEST_F(FilesBelowRoot, CreatingOverALinkToNothingIsRefused) {
  fs::create_symlink("nothing", Inside("dangling"));
  EXPECT_EQ(Open("dangling", {file_access_t::ReadWrite, file_share_t::Read, file_disposition_t::CreateAlways}),
            error::AccessDenied);
  EXPECT_FALSE(fs::exists(Inside("nothing")));
}

TEST_F(FilesBelowRoot, SwappingAFolderForALinkNeverLeaks) {
  fs::create_directory(Inside("folder"));
  WriteText(Inside("folder") / "secret", "own");
  fs::create_symlink(dir.Path() / "outside", Inside("link"));
  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    while (!stop) {
      fs::rename(Inside("folder"), Inside("aside"));
      fs::rename(Inside("link"), Inside("folder"));
      fs::rename(Inside("folder"), Inside("link"));
      fs::rename(Inside("aside"), Inside("folder"));
    }
  });
  const file_request_t request{file_access_t::Read, file_share_t::ReadWrite, file_disposition_t::OpenExisting};
  int opened = 0;
  // On a busy machine the other thread may rest for long where the folder is not.
  for (int round = 0; round < 3000 || opened == 0; ++round) {
    boost::shared_ptr<platform::file_t> file;
    if (files.Open(At("folder/secret"), request, file) == error::Success) {
      std::uint64_t size = 0;
      ASSERT_EQ(file->GetSize(size), error::Success);
      ASSERT_EQ(size, 3U);
      ++opened;
    }
  }
  stop = true;
  swapper.join();
}

TEST_F(FilesBelowRoot, WithoutLinksNoneIsFollowedFromThereOn) {
  fs::create_directories(Inside("real") / "folder" / "sub");
  WriteText(Inside("real") / "folder" / "sub" / "file", "text");
  fs::create_symlink("real", Inside("way"));
  fs::create_symlink("folder", Inside("real") / "link");
  fs::create_symlink("sub", Inside("real") / "folder" / "inner");
  constexpr platform::error_t IsLink = 1921;
  platform::folder_listing_t listing;
  boost::shared_ptr<platform::file_t> file;
  const file_request_t request{file_access_t::Read, file_share_t::ReadWrite, file_disposition_t::OpenExisting};

  const location_t folder = At("way/folder").WithoutLinks();
  EXPECT_EQ(folder.Path(), At("way/folder").Path());
  EXPECT_EQ(files.List(folder, listing), error::Success);
  EXPECT_EQ(files.Open(folder.Child("sub").Child("file"), request, file), error::Success);
  EXPECT_EQ(files.List(folder.Child("inner"), listing), IsLink);
  EXPECT_EQ(files.DeleteFile(folder.Child("inner").Child("file")), IsLink);
  EXPECT_EQ(files.Open(folder.Child("inner").Child("file"), request, file), IsLink);
  EXPECT_EQ(files.FindEntry(folder.Child("inner"), info), error::Success);
  EXPECT_TRUE(info.isLink);
  EXPECT_EQ(files.DeleteFile(At("way/folder/inner/none").WithoutLinks()), error::FileNotFound);

  const location_t link = At("way/link").WithoutLinks();
  EXPECT_EQ(files.List(link, listing), IsLink);
  EXPECT_EQ(files.DeleteFile(link.Child("sub").Child("file")), IsLink);
  EXPECT_EQ(files.DeleteFile(link.Child("sub").Child("file").WithoutLinks()), IsLink);
  EXPECT_EQ(files.DeleteFile(At("").WithoutLinks().Child("way").Child("folder")), IsLink);
  EXPECT_EQ(files.DeleteFile(link), error::Success);
  EXPECT_EQ(files.List(At("").WithoutLinks(), listing), error::Success);
  EXPECT_TRUE(fs::exists(Inside("real") / "folder" / "sub" / "file"));
}

TEST_F(FilesBelowRoot, RootIsAFolderOrNotThere) {
  EXPECT_EQ(files.GetInfo(At(""), info), error::Success);
  EXPECT_TRUE(info.attributes.IsDirectory());
  EXPECT_EQ(info.name, "");
  fs::remove_all(dir.Path() / "root");
  WriteText(dir.Path() / "root", "text");
  EXPECT_EQ(files.GetInfo(At(""), info), error::PathNotFound);
  EXPECT_EQ(files.GetInfo(At("child"), info), error::PathNotFound);
}

TEST_F(FilesBelowRoot, RootIsFoundAgainAfterItWasReplaced) {
  WriteText(Inside("old"), "old");
  EXPECT_EQ(files.GetInfo(At("old"), info), error::Success);
  fs::rename(dir.Path() / "root", dir.Path() / "moved");
  EXPECT_EQ(files.GetInfo(At("old"), info), error::FileNotFound);
  EXPECT_EQ(files.GetInfo(At(""), info), error::FileNotFound);
  fs::create_directory(dir.Path() / "root");
  WriteText(Inside("new"), "new");
  EXPECT_EQ(files.GetInfo(At("new"), info), error::Success);
  EXPECT_EQ(files.GetInfo(At("old"), info), error::FileNotFound);
}

TEST_F(FilesBelowRoot, RootIsFoundAgainAfterItWasDeleted) {
  EXPECT_EQ(files.GetInfo(At(""), info), error::Success);
  for (int round = 0; round < 3; ++round) {
    fs::remove_all(dir.Path() / "root");
    EXPECT_EQ(files.CreateFolder(At("folder")), error::FileNotFound);
    fs::create_directory(dir.Path() / "root");
    EXPECT_EQ(files.CreateFolder(At("folder")), error::Success);
    EXPECT_TRUE(fs::is_directory(Inside("folder")));
  }
}

TEST(Location, SplitsAtItsRoot) {
  const auto root = boost::make_shared<platform::root_folder_t>("/srv//nfs\\data/");
  EXPECT_EQ(root->Path(), "/srv/nfs/data");
  const location_t top(root);
  EXPECT_TRUE(top.IsRoot());
  EXPECT_EQ(top.Relative(), "");
  const location_t file = top.Child("folder").Child("file");
  EXPECT_EQ(file.Path(), "/srv/nfs/data/folder/file");
  EXPECT_EQ(file.Relative(), "folder/file");
  EXPECT_EQ(file.Name(), "file");
  EXPECT_EQ(file.Parent().Path(), "/srv/nfs/data/folder");
  EXPECT_TRUE(file.Parent().Parent().IsRoot());
  const location_t inSlash = location_t(boost::make_shared<platform::root_folder_t>("/")).Child("x");
  EXPECT_EQ(inSlash.Path(), "/x");
  EXPECT_EQ(inSlash.Relative(), "x");
}

TEST(Location, PlainNames) {
  for (const std::string name : {"a", "...", ".a", "a b", "\xc3\xa4", "a:"}) {
    EXPECT_TRUE(platform::IsPlainName(name)) << name;
  }
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("a\\b"), std::string("a\0b", 3), std::string("/")}) {
    EXPECT_FALSE(platform::IsPlainName(name)) << name;
  }
}

}  // namespace
