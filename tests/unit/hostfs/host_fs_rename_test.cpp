// What renames do to the entries, and to the items that stand for them.
#include <sys/stat.h>

#include <future>
#include <thread>
#include <utility>

#include "unit/hostfs/host_fs_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;

class HostFsRename : public test::HostFs {
 protected:
  static std::uint64_t SizeOf(IFsItem& file) {
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    file.GetAttributes(attributes);
    return attributes.Size();
  }
};

TEST_F(HostFsRename, ReplacesWhatHasTheName) {
  Put("old", "old");
  Put("new", "new");
  root->RenameChild("old", "new");
  EXPECT_FALSE(IsThere("old"));
  EXPECT_EQ(Get("new"), "old");
}

TEST_F(HostFsRename, FailureTellsBothPathsAndMovesNothing) {
  const std::string text = "Failed to rename file from [" + Path("old") + "] to [" + Path("new") + "].";
  EXPECT_EQ(NumberOf([&] { root->RenameChild("old", "new"); }, text), error::FileNotFound);
  Put("old", "old");
  const auto file = File("old");
  files.faults.beforeRename = [](const platform::location_t&) { return error::AccessDenied; };
  EXPECT_EQ(NumberOf([&] { root->RenameChild("old", "new"); }, text), error::AccessDenied);
  EXPECT_EQ(Read(*file), "old");
}

TEST_F(HostFsRename, ItemsOfAFileFollowIt) {
  Put("old", "old");
  const auto first = File("old");
  const auto second = File("old");
  EXPECT_EQ(Read(*first), "old");
  root->RenameChild("old", "new");
  Put("old", "another");
  SFsItemSpec spec;
  for (const auto& file : {first, second}) {
    EXPECT_TRUE(file->Exists());
    file->GetItemSpec(spec);
    EXPECT_EQ(spec.path, Path("new"));
    EXPECT_EQ(Read(*file), "old");
  }
  Write(*first, "NEW");
  EXPECT_EQ(Get("new"), "NEW");
  EXPECT_EQ(Get("old"), "another");
  EXPECT_EQ(Read(*File("old")), "another");
  EXPECT_EQ(Read(*File("new")), "NEW");
}

TEST_F(HostFsRename, EverythingBelowAFolderFollowsIt) {
  fs::create_directories(Path("a/b"));
  Put("a/b/file", "text");
  const auto outer = Folder("a");
  const auto inner = AsFolder(outer->OpenChild("b"));
  const auto file = AsFile(inner->OpenChild("file"));
  EXPECT_EQ(Read(*file), "text");
  root->RenameChild("a", "c");
  outer->RenameChild("b", "d");
  EXPECT_EQ(inner->LocalPath(), Path("c/d"));
  EXPECT_EQ(Read(*file), "text");
  Write(*file, "TEXT");
  EXPECT_EQ(Get("c/d/file"), "TEXT");
  EXPECT_EQ(Names(*inner), std::vector<std::string>{"file"});
  fs::create_directories(Path("a/b"));
  Put("a/b/file", "another");
  EXPECT_EQ(Read(*file), "TEXT");
  EXPECT_EQ(Read(*AsFile(AsFolder(Folder("a")->OpenChild("b"))->OpenChild("file"))), "another");
}

TEST_F(HostFsRename, ItemOfAReplacedFileIsGone) {
  Put("old", "old");
  Put("new", "new");
  const auto replaced = File("new");
  EXPECT_EQ(Read(*replaced), "new");
  root->RenameChild("old", "NEW");
  EXPECT_FALSE(replaced->Exists());
  EXPECT_EQ(NumberOf([&] { Read(*replaced); }), error::FileNotFound);
  EXPECT_EQ(NumberOf([&] { Write(*replaced, "x"); }), error::FileNotFound);
  EXPECT_EQ(Get("NEW"), "old");
  SFsItemSpec spec;
  replaced->GetItemSpec(spec);
  EXPECT_EQ(spec.path, Path("new"));
}

TEST_F(HostFsRename, ChangeOfCaseAndOfNothing) {
  Put("name", "text");
  const auto file = File("name");
  EXPECT_EQ(Read(*file), "text");
  root->RenameChild("name", "Name");
  EXPECT_EQ(Names(*root), std::vector<std::string>{"Name"});
  EXPECT_EQ(Read(*file), "text");
  root->RenameChild("NAME", "Name");
  EXPECT_EQ(Read(*file), "text");
  EXPECT_EQ(Names(*root), std::vector<std::string>{"Name"});
}

TEST_F(HostFsRename, HandleOpenedBetweenIsNotLeftUnderTheOldPath) {
  Put("old", "old");
  const auto file = File("old");
  std::promise<void> opened;
  std::thread reader;
  files.faults.beforeRename = [&](const platform::location_t&) {
    // Opens the old path just before it goes.
    reader = std::thread([&] { EXPECT_EQ(Read(*file), "old"); });
    opened.get_future().wait();
    return 0U;
  };
  files.faults.onOpen = [&](const platform::location_t& where, const platform::file_request_t&) {
    if (where.Path() == Path("old")) {
      opened.set_value();
    }
    return 0U;
  };
  root->RenameChild("old", "new");
  reader.join();
  files.faults.beforeRename = nullptr;
  files.faults.onOpen = nullptr;
  Put("old", "another");
  EXPECT_EQ(Read(*File("old")), "another");
  EXPECT_EQ(Read(*file), "old");
}

TEST_F(HostFsRename, ACallUnderWayDoesNotMeetWhatComesToTheOldPath) {
  Put("old", "old");
  const auto file = File("old");
  bool isMoved = false;
  files.faults.onGetInfo = [&](const platform::location_t&) {
    if (!std::exchange(isMoved, true)) {
      root->RenameChild("old", "new");
      Put("old", "another");
    }
    return 0U;
  };
  EXPECT_EQ(SizeOf(*file), 3U);
}

TEST_F(HostFsRename, ACallUnderWayDoesNotMeetWhatComesAfterADeletion) {
  Put("file", "old");
  const auto file = File("file");
  bool isDeleted = false;
  files.faults.onGetInfo = [&](const platform::location_t&) {
    if (!std::exchange(isDeleted, true)) {
      root->DeleteChild("file");
      Put("file", "another");
    }
    return 0U;
  };
  EXPECT_EQ(NumberOf([&] { SizeOf(*file); }), error::FileNotFound);
}

/// Runs a call that has found its place when the file is deleted, and that goes on when another one has been made
/// there, while the deletion is not over yet. begin: to be called where the call has found its place.
class HostFsDeletion : public HostFsRename {
 protected:
  void Begin() {
    if (remover_.joinable()) {
      return;
    }
    files.faults.afterDeleteFile = [this](const platform::location_t&) {
      Put("file", "another");
      isMade_.set_value();
      isMet_.get_future().wait();
    };
    remover_ = std::thread([this] { root->DeleteChild("file"); });
    isMade_.get_future().wait();
  }
  void End() {
    isMet_.set_value();
    remover_.join();
  }

 private:
  std::promise<void> isMade_;
  std::promise<void> isMet_;
  std::thread remover_;
};

TEST_F(HostFsRename, WhatAnotherClientDeletesFirstIsGoneToo) {
  Put("file", "old");
  const auto file = File("file");
  bool isDeleted = false;
  files.faults.onDeleteFile = [&](const platform::location_t&) {
    if (!std::exchange(isDeleted, true)) {
      root->DeleteChild("file");
    }
    return 0U;
  };
  root->DeleteChild("file");
  Put("file", "another");
  EXPECT_EQ(NumberOf([&] { SizeOf(*file); }), error::FileNotFound);
  EXPECT_EQ(NumberOf([&] { Write(*file, "lost"); }), error::FileNotFound);
}

TEST_F(HostFsRename, WhatIsDeletedInAFolderThatIsMovedMeanwhileIsGone) {
  fs::create_directory(Path("folder"));
  Put("folder/file", "old");
  const auto folder = Folder("folder");
  const auto file = AsFile(folder->OpenChild("file"));
  bool isMoved = false;
  files.faults.onDeleteFile = [&](const platform::location_t&) {
    if (!std::exchange(isMoved, true)) {
      root->RenameChild("folder", "moved");
    }
    return 0U;
  };
  folder->DeleteChild("file");
  EXPECT_FALSE(IsThere("moved/file"));
  Put("moved/file", "another");
  EXPECT_EQ(NumberOf([&] { SizeOf(*file); }), error::FileNotFound);
}

TEST_F(HostFsRename, WhatCannotBeDeletedInAFolderThatIsMovedMeanwhileStays) {
  fs::create_directory(Path("folder"));
  Put("folder/file", "old");
  const auto folder = Folder("folder");
  const auto file = AsFile(folder->OpenChild("file"));
  bool isMoved = false;
  files.faults.onDeleteFile = [&](const platform::location_t&) {
    if (std::exchange(isMoved, true)) {
      return error::AccessDenied;
    }
    root->RenameChild("folder", "moved");
    return error::Success;
  };
  EXPECT_EQ(NumberOf([&] { folder->DeleteChild("file"); }), error::AccessDenied);
  EXPECT_EQ(Read(*file), "old");
}

TEST_F(HostFsDeletion, ACallUnderWayDoesNotTellOfWhatIsMadeBeforeItIsOver) {
  Put("file", "old");
  const auto file = File("file");
  files.faults.onGetInfo = [this](const platform::location_t&) {
    Begin();
    return 0U;
  };
  EXPECT_EQ(NumberOf([&] { SizeOf(*file); }), error::BeingDeleted);
  End();
  EXPECT_EQ(NumberOf([&] { SizeOf(*file); }), error::FileNotFound);
}

TEST_F(HostFsDeletion, ACallUnderWayDoesNotChangeWhatIsMadeBeforeItIsOver) {
  Put("file", "old");
  const auto file = File("file");
  files.faults.onOpen = [this](const platform::location_t&, const platform::file_request_t&) {
    Begin();
    return 0U;
  };
  const FILETIME time = platform::FiletimeFromTimespec({1600000000, 0});
  EXPECT_EQ(NumberOf([&] { file->SetTimes(nullptr, nullptr, &time); }), error::BeingDeleted);
  End();
  EXPECT_EQ(NumberOf([&] { file->SetTimes(nullptr, nullptr, &time); }), error::FileNotFound);
  struct stat status {};
  ASSERT_EQ(::stat(Path("file").c_str(), &status), 0);
  EXPECT_NE(status.st_mtim.tv_sec, 1600000000);
  EXPECT_EQ(Get("file"), "another");
}

TEST_F(HostFsRename, ALinkLeadsToWhatHasTheNameNow) {
  Put("disk", "first");
  Put("next", "second");
  fs::create_symlink("disk", Path("link"));
  const auto link = File("link");
  EXPECT_EQ(Read(*link), "first");
  root->RenameChild("disk", "old");
  root->RenameChild("next", "disk");
  EXPECT_EQ(Read(*link), "second");
  Write(*link, "SECOND");
  EXPECT_EQ(Get("disk"), "SECOND");
  EXPECT_EQ(Get("old"), "first");
  root->DeleteChild("disk");
  Put("disk", "third");
  EXPECT_EQ(Read(*link), "third");
}

TEST_F(HostFsRename, AFileBelowALinkIsThatOfTheFolderThatTheLinkLeadsTo) {
  for (const char* name : {"first", "second"}) {
    fs::create_directory(Path(name));
    Put(std::string(name) + "/disk", name);
  }
  fs::create_symlink("first", Path("link"));
  const auto disk = [this] { return boost::dynamic_pointer_cast<IFsFile>(Folder("link")->OpenChild("disk")); };
  EXPECT_EQ(Read(*disk()), "first");
  root->RenameChild("first", "away");
  root->RenameChild("second", "first");
  EXPECT_EQ(Read(*disk()), "second");
  root->DeleteChild("link");
  fs::create_symlink("away", Path("link"));
  EXPECT_EQ(Read(*disk()), "first");
}

TEST_F(HostFsRename, OthersDoNotWaitForARenameThatTakesItsTime) {
  Put("old", "old");
  Put("other", "other");
  const auto other = File("other");
  files.faults.beforeRename = [&](const platform::location_t&) {
    EXPECT_EQ(Read(*other), "other");
    EXPECT_EQ(SizeOf(*other), 5U);
    return 0U;
  };
  root->RenameChild("old", "new");
  EXPECT_EQ(Get("new"), "old");
}

TEST_F(HostFsRename, FolderThatIsMovedMeanwhileIsTheOneWhoseEntryIsRenamed) {
  fs::create_directory(Path("folder"));
  Put("folder/old", "own");
  const auto folder = Folder("folder");
  const auto file = AsFile(folder->OpenChild("old"));
  bool isMoved = false;
  files.faults.onFindEntry = [&](const platform::location_t&) {
    if (std::exchange(isMoved, true)) {
      return 0U;
    }
    root->RenameChild("folder", "moved");
    fs::create_directory(Path("folder"));
    Put("folder/old", "another");
    return 0U;
  };
  folder->RenameChild("old", "new");
  EXPECT_EQ(Get("moved/new"), "own");
  EXPECT_EQ(Get("folder/old"), "another");
  EXPECT_EQ(Read(*file), "own");
}

TEST_F(HostFsRename, ReadersMeanwhileAlwaysFindTheFile) {
  Put("a", "text");
  const auto file = File("a");
  std::thread reader([&] {
    for (int round = 0; round < 2000; ++round) {
      ASSERT_EQ(Read(*file), "text");
      ASSERT_TRUE(file->Exists());
    }
  });
  for (int round = 0; round < 300; ++round) {
    root->RenameChild("a", "b");
    root->RenameChild("b", "a");
  }
  reader.join();
}

TEST_F(HostFsRename, ItemsAreForgottenWithTheirLastHolder) {
  for (int round = 0; round < 3; ++round) {
    Put("file", std::to_string(round));
    EXPECT_EQ(Read(*File("file")), std::to_string(round));
    root->RenameChild("file", "moved");
    EXPECT_EQ(Read(*File("moved")), std::to_string(round));
  }
}

}  // namespace
