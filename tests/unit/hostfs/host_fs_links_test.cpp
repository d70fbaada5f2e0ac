// Files that have a second path: through a link to a folder on the way, or by a second name of their own.
#include <utility>

#include "unit/hostfs/host_fs_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;

/// The share has the folder "own" with a file in it, and "link" leads to that folder.
class HostFsLinks : public test::HostFs {
 protected:
  HostFsLinks() {
    fs::create_directory(Path("own"));
    fs::create_directory_symlink("own", Path("link"));
    Put("own/disk", "first");
    own = Folder("own");
    link = Folder("link");
    disk = AsFile(own->OpenChild("disk"));
  }

  /// What is written under the file's own path must come to the file that has it now.
  void ExpectDiskIs(const std::string& text) {
    EXPECT_EQ(Read(*disk), text);
    Write(*disk, "written");
    EXPECT_EQ(Get("own/disk"), "written");
    EXPECT_EQ(Read(*disk), "written");
  }

  boost::shared_ptr<CHostFsFolder> own;
  boost::shared_ptr<CHostFsFolder> link;
  boost::shared_ptr<IFsFile> disk;
};

TEST_F(HostFsLinks, AFileIsGoneThatWasRemovedThroughALink) {
  EXPECT_EQ(Read(*disk), "first");
  link->DeleteChild("disk");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 0U);
  EXPECT_EQ(NumberOf([&] { Read(*disk); }), error::FileNotFound);
  EXPECT_EQ(NumberOf([&] { Write(*disk, "lost"); }), error::FileNotFound);
}

TEST_F(HostFsLinks, AFileRemovedThroughALinkAndMadeAnewIsTheNewOne) {
  Write(*disk, "FIRST");
  link->DeleteChild("disk");
  link->CreateFile("disk", {});
  ExpectDiskIs("");
}

TEST_F(HostFsLinks, AFileReplacedByARenameThroughALinkIsTheNewOne) {
  Write(*disk, "FIRST");
  Put("own/next", "second");
  link->RenameChild("next", "disk");
  ExpectDiskIs("second");
}

TEST_F(HostFsLinks, AFileReplacedInAnotherCaseThroughALinkIsTheNewOne) {
  Write(*disk, "FIRST");
  Put("own/next", "second");
  link->RenameChild("next", "DISK");
  EXPECT_EQ(Read(*disk), "second");
  Write(*disk, "written");
  EXPECT_EQ(Get("own/DISK"), "written");
}

TEST_F(HostFsLinks, WhatIsMadeInPlaceOfAFileRenamedThroughALinkIsMet) {
  EXPECT_EQ(Read(*disk), "first");
  link->RenameChild("disk", "old");
  EXPECT_EQ(NumberOf([&] { Read(*disk); }), error::FileNotFound);
  link->CreateFile("disk", {});
  ExpectDiskIs("");
  EXPECT_EQ(Get("own/old"), "first");
}

TEST_F(HostFsLinks, AFileRemovedByItsOwnPathAndMadeAnewIsTheNewOneThroughALink) {
  const auto linked = AsFile(link->OpenChild("disk"));
  Write(*linked, "FIRST");
  own->DeleteChild("disk");
  own->CreateFile("disk", {});
  Write(*linked, "written");
  EXPECT_EQ(Get("own/disk"), "written");
}

TEST_F(HostFsLinks, WhatLiesInAFolderRemovedThroughALinkIsGoneAndMayBeMadeAnew) {
  const auto fill = [this](const std::string& text) {
    fs::create_directories(Path("own/folder/inner"));
    Put("own/folder/inner/file", text);
  };
  fill("first");
  const auto inner = AsFolder(AsFolder(own->OpenChild("folder"))->OpenChild("inner"));
  const auto file = AsFile(inner->OpenChild("file"));
  EXPECT_EQ(Read(*file), "first");
  link->DeleteChild("folder");
  EXPECT_EQ(NumberOf([&] { Read(*file); }), error::FileNotFound);
  fill("second");
  EXPECT_EQ(Read(*file), "second");
  Write(*file, "SECOND");
  EXPECT_EQ(Get("own/folder/inner/file"), "SECOND");
}

TEST_F(HostFsLinks, WhatLiesInAFolderRenamedThroughALinkIsThatOfTheFolderThatComesInItsPlace) {
  for (const char* name : {"first", "second"}) {
    fs::create_directory(Path("own/" + std::string(name)));
    Put("own/" + std::string(name) + "/file", name);
  }
  const auto file = AsFile(AsFolder(own->OpenChild("first"))->OpenChild("file"));
  EXPECT_EQ(Read(*file), "first");
  link->RenameChild("first", "away");
  link->RenameChild("second", "first");
  EXPECT_EQ(Read(*file), "second");
  Write(*file, "SECOND");
  EXPECT_EQ(Get("own/first/file"), "SECOND");
  EXPECT_EQ(Get("own/away/file"), "first");
}

TEST_F(HostFsLinks, AHandleOpenedJustBeforeARemovalThroughALinkIsNotKept) {
  int calls = 0;
  files.faults.onDeleteFile = [&](const platform::location_t&) {
    ++calls;
    EXPECT_EQ(Read(*disk), "first");
    return 0U;
  };
  link->DeleteChild("disk");
  EXPECT_EQ(calls, 1);
  link->CreateFile("disk", {});
  ExpectDiskIs("");
}

TEST_F(HostFsLinks, AHandleOpenedJustBeforeItsFileIsReplacedThroughALinkIsNotKept) {
  Put("own/next", "second");
  int calls = 0;
  files.faults.beforeRename = [&](const platform::location_t&) {
    ++calls;
    EXPECT_EQ(Read(*disk), "first");
    return 0U;
  };
  link->RenameChild("next", "disk");
  EXPECT_EQ(calls, 1);
  ExpectDiskIs("second");
}

TEST_F(HostFsLinks, ACallUnderWayEndsOnTheFileThatItFound) {
  bool isReplaced = false;
  files.faults.onRead = [&](std::uint64_t, std::size_t) {
    if (!std::exchange(isReplaced, true)) {
      link->DeleteChild("disk");
      Put("own/disk", "second");
    }
    return 0U;
  };
  EXPECT_EQ(Read(*disk), "first");
  ExpectDiskIs("second");
}

TEST_F(HostFsLinks, AFileWithASecondNameStaysWhatItIsWhenEitherGoes) {
  fs::create_hard_link(Path("own/disk"), Path("name"));
  const auto name = File("name");
  Write(*disk, "FIRST");
  root->DeleteChild("name");
  EXPECT_EQ(NumberOf([&] { Read(*name); }), error::FileNotFound);
  EXPECT_EQ(Read(*disk), "FIRST");
  Write(*disk, "again");
  EXPECT_EQ(Get("own/disk"), "again");
  fs::create_hard_link(Path("own/disk"), Path("name"));
  own->DeleteChild("disk");
  EXPECT_EQ(NumberOf([&] { Read(*disk); }), error::FileNotFound);
  Write(*File("name"), "AGAIN");
  EXPECT_EQ(Get("name"), "AGAIN");
}

TEST_F(HostFsLinks, AFileWithASecondNameIsReplacedUnderOneOfThem) {
  fs::create_hard_link(Path("own/disk"), Path("name"));
  Put("next", "second");
  EXPECT_EQ(Read(*disk), "first");
  root->RenameChild("next", "name");
  Write(*disk, "FIRST");
  EXPECT_EQ(Get("own/disk"), "FIRST");
  EXPECT_EQ(Get("name"), "second");
  EXPECT_EQ(Read(*File("name")), "second");
}

TEST_F(HostFsLinks, OtherFilesStayOpenWhereNoPathPassesALink) {
  fs::create_directories(Path("plain/folder"));
  for (const char* name : {"file", "source", "target", "folder/file"}) {
    Put("plain/" + std::string(name), name);
  }
  EXPECT_EQ(Read(*disk), "first");
  const auto plain = Folder("plain");
  for (const char* name : {"file", "source", "target"}) {
    EXPECT_EQ(Read(*AsFile(plain->OpenChild(name))), name);
  }
  EXPECT_EQ(Read(*AsFile(AsFolder(plain->OpenChild("folder"))->OpenChild("file"))), "folder/file");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 5U);
  plain->DeleteChild("file");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 4U);
  plain->RenameChild("source", "target");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 2U);
  plain->RenameChild("folder", "moved");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
  plain->DeleteChild("moved");
  EXPECT_EQ(HostFsFileCache::RecordCount(), 1U);
}

}  // namespace
