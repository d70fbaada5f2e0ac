// Places in the tree of names, without a disk below it.
#include "hostfs/host_fs_node.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

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

}  // namespace
