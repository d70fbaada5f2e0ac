// Places in the tree of names, without a disk below it.
#include "hostfs/host_fs_node.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/refused_memory.h"

namespace {

constexpr auto Done = [] { return platform::error::Success; };

class HostFsNodeTest : public testing::Test {
 protected:
  const CHostFsNodePtr root_ = CHostFsNode::CreateRoot("/nowhere", platform::SystemFiles());
};

TEST_F(HostFsNodeTest, ANameHasOneNodeWhileAnyoneHoldsIt) {
  const CHostFsNodePtr folder = root_->Child("folder");
  EXPECT_EQ(root_->Child("folder"), folder);
  EXPECT_NE(root_->Child("Folder"), folder);
  CHostFsNodePtr file = folder->Child("file");
  EXPECT_EQ(folder->Child("file"), file);
  EXPECT_EQ(file->Path(), "/nowhere/folder/file");
  file.reset();
  EXPECT_EQ(folder->Child("file")->Path(), "/nowhere/folder/file");
}

TEST_F(HostFsNodeTest, ANodeOutlivesTheFolderThatMadeIt) {
  CHostFsNodePtr folder = root_->Child("folder");
  const CHostFsNodePtr file = folder->Child("file");
  folder.reset();
  EXPECT_EQ(file->Path(), "/nowhere/folder/file");
  EXPECT_EQ(root_->Child("folder")->Child("file"), file);
}

/// The paths that a call is asked to try, during the first of which something else happens.
std::vector<std::string> PathsTried(const CHostFsNode& node, const std::function<void()>& meanwhile,
                                    platform::error_t expected) {
  std::vector<std::string> paths;
  EXPECT_EQ(node.AtSettledLocation([&](const boost::shared_ptr<const platform::location_t>& where) {
    paths.push_back(where->Path());
    if (paths.size() == 1)
      meanwhile();
    return platform::error::Success;
  }),
            expected);
  return paths;
}

using paths_t = std::vector<std::string>;

TEST_F(HostFsNodeTest, ACallIsSettledWhenNothingMovedItsNode) {
  const CHostFsNodePtr file = root_->Child("folder")->Child("file");
  const CHostFsNodePtr other = root_->Child("other");
  EXPECT_EQ(PathsTried(
                *file, [] {}, platform::error::Success),
            paths_t{"/nowhere/folder/file"});
  // Also where the location had to be made anew.
  const auto renameOther = [&] {
    EXPECT_EQ(root_->RenameChild("other", "another", "", Done), platform::error::Success);
  };
  EXPECT_EQ(PathsTried(*file, renameOther, platform::error::Success), paths_t{"/nowhere/folder/file"});
}

TEST_F(HostFsNodeTest, ACallIsMadeAgainWhereItsNodeWasMovedMeanwhile) {
  const CHostFsNodePtr folder = root_->Child("folder");
  const CHostFsNodePtr file = folder->Child("file");
  const auto rename = [&] { EXPECT_EQ(folder->RenameChild("file", "moved", "", Done), platform::error::Success); };
  EXPECT_EQ(PathsTried(*file, rename, platform::error::Success),
            (paths_t{"/nowhere/folder/file", "/nowhere/folder/moved"}));
  const auto renameFolder = [&] { EXPECT_EQ(root_->RenameChild("folder", "new", "", Done), platform::error::Success); };
  EXPECT_EQ(PathsTried(*file, renameFolder, platform::error::Success),
            (paths_t{"/nowhere/folder/moved", "/nowhere/new/moved"}));
}

TEST_F(HostFsNodeTest, ACallFindsNothingWhereItsNodeWasReplacedOrDeletedMeanwhile) {
  const CHostFsNodePtr replaced = root_->Child("replaced");
  const CHostFsNodePtr deleted = root_->Child("deleted");
  const CHostFsNodePtr source = root_->Child("source");
  const auto replace = [&] { EXPECT_EQ(root_->RenameChild("source", "replaced", "", Done), platform::error::Success); };
  EXPECT_EQ(PathsTried(*replaced, replace, platform::error::FileNotFound), paths_t{"/nowhere/replaced"});
  const auto remove = [&] {
    EXPECT_EQ(root_->TakeChild("deleted"), deleted);
    root_->ChildIsGone(*deleted);
  };
  EXPECT_EQ(PathsTried(*deleted, remove, platform::error::FileNotFound), paths_t{"/nowhere/deleted"});
}

TEST_F(HostFsNodeTest, ACallIsNotSettledWhileItsNodeIsBeingDeleted) {
  const CHostFsNodePtr folder = root_->Child("folder");
  const CHostFsNodePtr file = folder->Child("file");
  const auto remove = [&] { EXPECT_EQ(root_->TakeChild("folder"), folder); };
  // It may have met what another client made there, or what is going; and the deletion may yet fail.
  EXPECT_EQ(PathsTried(*file, remove, platform::error::BeingDeleted), paths_t{"/nowhere/folder/file"});
  root_->PutBack(folder);
  EXPECT_EQ(PathsTried(
                *file, [] {}, platform::error::Success),
            paths_t{"/nowhere/folder/file"});
  const auto removeInVain = [&] {
    remove();
    root_->PutBack(folder);
  };
  EXPECT_EQ(PathsTried(*file, removeInVain, platform::error::Success), paths_t{"/nowhere/folder/file"});
  const auto removeForGood = [&] {
    remove();
    root_->ChildIsGone(*folder);
  };
  EXPECT_EQ(PathsTried(*file, removeForGood, platform::error::FileNotFound), paths_t{"/nowhere/folder/file"});
}

TEST_F(HostFsNodeTest, WhatIsBeingDeletedIsGoneOnceAnotherIsMadeUnderItsName) {
  const CHostFsNodePtr folder = root_->Child("folder");
  const CHostFsNodePtr file = folder->Child("file");
  const auto expect = [](const CHostFsNodePtr& node, platform::error_t expected) {
    EXPECT_EQ(node->AtLocation([](const auto&) { return platform::error::Success; }), expected) << node->Path();
  };
  const CHostFsNodePtr around = folder->Child("inner");
  const CHostFsNodePtr below = around->Child("file");
  ASSERT_EQ(folder->TakeChild("file"), file);
  ASSERT_EQ(folder->TakeChild("inner"), around);
  // Of the same name elsewhere, and of another name.
  root_->ChildIsMade("file");
  around->ChildIsMade("file");
  folder->ChildIsMade("other");
  expect(file, platform::error::BeingDeleted);
  folder->ChildIsMade("FILE");
  expect(file, platform::error::FileNotFound);
  expect(below, platform::error::BeingDeleted);
  folder->ChildIsMade("inner");
  expect(below, platform::error::FileNotFound);
  const CHostFsNodePtr made = folder->Child("file");
  EXPECT_NE(made, file);
  // What could not be deleted under the name then was the new one.
  folder->PutBack(file);
  expect(file, platform::error::FileNotFound);
  folder->ChildIsGone(*around);
  expect(below, platform::error::FileNotFound);
  expect(made, platform::error::Success);
  ASSERT_EQ(folder->TakeChild("file"), made);
  folder->PutBack(made);
  expect(made, platform::error::Success);
}

TEST_F(HostFsNodeTest, WhatIsBeingDeletedIsNotSaidToBeGone) {
  const CHostFsNodePtr folder = root_->Child("folder");
  const CHostFsNodePtr file = folder->Child("file");
  const auto expect = [&](platform::error_t expected) {
    for (const CHostFsNodePtr& node : {folder, file})
      EXPECT_EQ(node->AtLocation([](const auto&) { return platform::error::Success; }), expected) << node->Path();
  };
  ASSERT_EQ(root_->TakeChild("folder"), folder);
  expect(platform::error::BeingDeleted);
  root_->PutBack(folder);
  expect(platform::error::Success);
  ASSERT_EQ(root_->TakeChild("folder"), folder);
  root_->ChildIsGone(*folder);
  expect(platform::error::FileNotFound);
}

TEST_F(HostFsNodeTest, WhatIsMadeDuringARenameIsNotTheNodeThatIsRenamed) {
  const CHostFsNodePtr file = root_->Child("file");
  std::thread maker;
  CHostFsNodePtr made;
  std::promise<void> over;
  EXPECT_EQ(root_->RenameChild("file", "moved", "",
                               [&] {
                                 maker = std::thread([&] {
                                   made = root_->Child("file");
                                   over.set_value();
                                 });
                                 EXPECT_EQ(over.get_future().wait_for(std::chrono::milliseconds(50)),
                                           std::future_status::timeout);
                                 // Others need not wait.
                                 EXPECT_EQ(root_->Child("other")->Path(), "/nowhere/other");
                                 return platform::error::Success;
                               }),
            platform::error::Success);
  maker.join();
  EXPECT_NE(made, file);
  EXPECT_EQ(made->Path(), "/nowhere/file");
  EXPECT_EQ(file->Path(), "/nowhere/moved");
}

TEST_F(HostFsNodeTest, ACallWaitsForTheRenameThatIsUnderWayForItsNode) {
  const CHostFsNodePtr file = root_->Child("file");
  std::promise<void> tried;
  std::thread caller;
  paths_t paths;
  EXPECT_EQ(root_->RenameChild("file", "moved", "",
                               [&] {
                                 caller = std::thread([&] {
                                   paths = PathsTried(
                                       *file, [&] { tried.set_value(); }, platform::error::Success);
                                 });
                                 tried.get_future().wait();
                                 return platform::error::Success;
                               }),
            platform::error::Success);
  caller.join();
  EXPECT_EQ(paths, (paths_t{"/nowhere/file", "/nowhere/moved"}));
}

TEST_F(HostFsNodeTest, ARenameThatFailedLeavesCallsSettled) {
  const CHostFsNodePtr file = root_->Child("file");
  const auto fail = [] { return platform::error::AccessDenied; };
  EXPECT_EQ(root_->RenameChild("file", "moved", "", fail), platform::error::AccessDenied);
  EXPECT_THROW(root_->RenameChild("file", "moved", "", []() -> platform::error_t { throw std::bad_alloc(); }),
               std::bad_alloc);
  EXPECT_EQ(PathsTried(
                *file, [] {}, platform::error::Success),
            paths_t{"/nowhere/file"});
}

TEST_F(HostFsNodeTest, MoreNodesThanLocationsAreKeptAnswerAtTheirPlaces) {
  constexpr std::size_t Count = 40000;
  const CHostFsNodePtr folder = root_->Child("folder");
  std::vector<CHostFsNodePtr> files;
  for (std::size_t i = 0; i < Count; ++i) {
    files.push_back(folder->Child("file" + std::to_string(i)));
    ASSERT_EQ(files[i]->Path(), "/nowhere/folder/file" + std::to_string(i));
  }
  ASSERT_EQ(root_->RenameChild("folder", "moved", {}, Done), platform::error::Success);
  // Some go while their locations are kept, some afterwards.
  for (std::size_t i = 0; i < Count; i += 3)
    files[i].reset();
  for (std::size_t i = 0; i < Count; ++i) {
    if (files[i]) {
      ASSERT_EQ(files[i]->Path(), "/nowhere/moved/file" + std::to_string(i));
    }
  }
  EXPECT_EQ(folder->Path(), "/nowhere/moved");
}

TEST_F(HostFsNodeTest, WhatWasReplacedTellsItsLastPathHoweverManyOthersCameSince) {
  const CHostFsNodePtr old = root_->Child("old");
  const CHostFsNodePtr target = root_->Child("target");
  ASSERT_EQ(root_->RenameChild("old", "target", {}, Done), platform::error::Success);
  for (int i = 0; i < 40000; ++i)
    ASSERT_TRUE(root_->Child("file" + std::to_string(i))->Location());
  EXPECT_FALSE(target->Location());
  EXPECT_EQ(target->Path(), "/nowhere/target");
  EXPECT_EQ(old->Path(), "/nowhere/target");
  EXPECT_EQ(root_->Child("target"), old);
}

TEST_F(HostFsNodeTest, NodesComeAndGoOnManyThreadsWhileTheirFolderIsRenamed) {
  const CHostFsNodePtr folder = root_->Child("folder0");
  std::atomic<bool> isOver = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&folder, &isOver] {
      for (int round = 0; !isOver; ++round) {
        const CHostFsNodePtr file = folder->Child("file" + std::to_string(round % 3));
        const CHostFsNodePtr again = folder->Child("file" + std::to_string(round % 3));
        EXPECT_EQ(file, again);
        EXPECT_TRUE(file->Path().starts_with("/nowhere/folder"));
      }
    });
  }
  for (int i = 0; i < 2000; ++i) {
    const std::string from = "folder" + std::to_string(i % 2);
    EXPECT_EQ(root_->RenameChild(from, "folder" + std::to_string((i + 1) % 2), {}, Done), platform::error::Success);
  }
  isOver = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(folder->Path(), "/nowhere/folder0");
}

// What the host has done cannot be taken back for want of memory.
TEST_F(HostFsNodeTest, ARenameThatMemoryIsRefusedToMovesTheNodesWithTheEntryOrNotAtAll) {
  const std::string from = "a name that is longer than a text keeps in itself";
  const std::string to = "another one, and it is longer still than the first one was";
  std::size_t renamed = 0;
  test::UntilNoneIsRefused([&](std::size_t granted) {
    const CHostFsNodePtr root = CHostFsNode::CreateRoot("/nowhere", platform::SystemFiles());
    const CHostFsNodePtr moved = root->Child(from);
    const CHostFsNodePtr below = moved->Child("below");
    const CHostFsNodePtr replaced = root->Child(to);
    bool hasRenamed = false;
    bool isRefused = false;
    {
      const test::RefusedRequest refusal(granted);
      try {
        root->RenameChild(from, to, "", [&] {
          hasRenamed = true;
          return platform::error::Success;
        });
      } catch (const std::bad_alloc&) {
      }
      isRefused = refusal.HasHappened();
    }
    EXPECT_EQ(moved->Path(), "/nowhere/" + (hasRenamed ? to : from)) << granted;
    EXPECT_EQ(below->Path(), moved->Path() + "/below") << granted;
    EXPECT_EQ(root->Child(hasRenamed ? to : from), moved) << granted;
    EXPECT_EQ(replaced->Location() == nullptr, hasRenamed) << granted;
    renamed += hasRenamed ? 1 : 0;
    return isRefused;
  });
  EXPECT_GT(renamed, 0U);
}

TEST_F(HostFsNodeTest, NodesArePutBackWithoutMemory) {
  const std::vector<std::string> names{"file", "one more", "a third"};
  std::vector<CHostFsNodePtr> files;
  for (const std::string& name : names)
    files.push_back(root_->Child(name));
  std::vector<CHostFsNodePtr> others;
  // At some of these numbers the children fill their buckets.
  for (int count = 0; count < 60; ++count) {
    for (const std::string& name : names)
      root_->TakeChild(name);
    others.push_back(root_->Child("other" + std::to_string(count)));
    {
      const test::RefusedRequest refusal(0);
      for (const CHostFsNodePtr& file : files)
        root_->PutBack(file);
      EXPECT_FALSE(refusal.HasHappened()) << count;
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
      EXPECT_EQ(root_->Child(names[i]), files[i]) << count;
      EXPECT_EQ(files[i]->Path(), "/nowhere/" + names[i]);
    }
    for (const CHostFsNodePtr& other : others)
      EXPECT_EQ(root_->Child(other->Path().substr(9)), other);
  }
}

}  // namespace
