#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "foundation/exc.h"
#include "kelvo-mount-agent/overlay_file.h"
#include "kelvo-mount-agent/overlay_map.h"
#include "unit/mount_agent/folder_fixture.h"

namespace {

namespace error = platform::error;
using mount_agent::BlockSize;
using mount_agent::COverlayMap;
using mount_agent::writes_t;

constexpr std::size_t Block = BlockSize;

class OverlayTest : public test::FolderFixture {
 protected:
  /// A file of the source, and what the guest is to see of it.
  std::string MakeSource(std::size_t size) {
    WriteFile(SourceFile("disk"), Pattern(size, 1));
    return Pattern(size, 1);
  }
  static void WriteBoth(mount_agent::IMountedItem& item, std::string& model, std::size_t offset,
                        const std::string& data) {
    ASSERT_EQ(Write(item, offset, data), 0U);
    if (model.size() < offset + data.size())
      model.resize(offset + data.size());
    model.replace(offset, data.size(), data);
  }
  /// Why the overlay is refused; empty when it is not.
  std::string Refusal() const {
    const std::string before = ReadFile(OverlayFile("disk"));
    std::string text;
    try {
      MakeOverlaid();
    } catch (const exc::exc_base_t& failure) {
      text = failure.what();
      EXPECT_NE(text.find("The overlay [" + OverlayFile("disk") + "] cannot be used."), std::string::npos) << text;
      EXPECT_EQ(ReadFile(OverlayFile("disk")), before) << "A refused overlay was changed.";
    }
    return text;
  }
  void ChangeByte(std::uint64_t offset) const {
    std::fstream file(OverlayFile("disk"), std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(static_cast<std::streamoff>(offset));
    const int byte = file.get();
    file.seekp(static_cast<std::streamoff>(offset));
    file.put(static_cast<char>(byte ^ 0x40));
  }
};

TEST_F(OverlayTest, NothingIsMadeBeforeTheFirstWrite) {
  const std::string model = MakeSource(3 * Block);
  const auto content = MakeOverlaid();
  EXPECT_EQ(All(*Open(*content, "disk")), model);
  EXPECT_FALSE(std::filesystem::exists(OverlayFile("disk")));
}

TEST_F(OverlayTest, TellsWhereTheBytesLie) {
  MakeSource(3 * Block);
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  std::vector<platform::file_part_t> parts;
  ASSERT_TRUE(item->Locate(0, 3 * Block, parts));
  EXPECT_EQ(parts.size(), 1U);
  ASSERT_EQ(Write(*item, Block + 10, "guest"), 0U);
  parts.clear();
  ASSERT_TRUE(item->Locate(100, 2 * Block, parts));
  ASSERT_EQ(parts.size(), 3U) << "the source, the overlay, the source";
  EXPECT_EQ(parts[0].file, parts[2].file);
  EXPECT_NE(parts[0].file, parts[1].file);

  ASSERT_EQ(Write(*item, 5 * Block, "far away"), 0U);
  parts.clear();
  EXPECT_FALSE(item->Locate(2 * Block, 3 * Block, parts)) << "zeros that lie nowhere";
  EXPECT_FALSE(item->Locate(5 * Block, Block, parts)) << "past the end";
  EXPECT_TRUE(parts.empty());
  EXPECT_TRUE(item->Locate(5 * Block, 8, parts));
}

TEST_F(OverlayTest, WritesOfEveryAlignmentMergeWithTheSourceAndOutliveTheAgent) {
  std::string model = MakeSource(6 * Block + 100);
  const std::string original = model;
  const std::vector<std::size_t> edges = {0, 1, Block - 1, Block, Block + 1, 2 * Block};
  unsigned seed = 2;
  {
    const auto content = MakeOverlaid();
    const item_ptr_t item = Open(*content, "disk");
    for (const std::size_t offset : edges) {
      for (const std::size_t length : {std::size_t{1}, std::size_t{7}, Block - 1, Block, Block + 1, 3 * Block}) {
        WriteBoth(*item, model, offset, Pattern(length, ++seed));
        ASSERT_EQ(All(*item), model) << offset << " " << length;
      }
    }
  }
  const auto content = MakeOverlaid();
  EXPECT_EQ(All(*Open(*content, "disk")), model);
  EXPECT_EQ(ReadFile(SourceFile("disk")), original);
}

TEST_F(OverlayTest, EachWriteAloneMergesWithTheSource) {
  for (const std::size_t offset : {std::size_t{0}, std::size_t{5}, Block - 1, Block, 2 * Block + 90}) {
    for (const std::size_t length : {std::size_t{1}, Block - 5, Block, Block + 1, 2 * Block + 7}) {
      std::string model = MakeSource(2 * Block + 100);
      const auto content = MakeOverlaid();
      const item_ptr_t item = Open(*content, "disk");
      WriteBoth(*item, model, offset, Pattern(length, 3));
      EXPECT_EQ(All(*item), model) << offset << " " << length;
      std::filesystem::remove(OverlayFile("disk"));
    }
  }
}

TEST_F(OverlayTest, WhatLiesBetweenTheOldEndAndAWriteIsZeros) {
  std::string model = MakeSource(Block + 10);
  {
    const auto content = MakeOverlaid();
    const item_ptr_t item = Open(*content, "disk");
    WriteBoth(*item, model, 5 * Block + 3, "far");
    EXPECT_EQ(All(*item), model);
    WriteBoth(*item, model, 3 * Block, "between");
  }
  const auto content = MakeOverlaid();
  EXPECT_EQ(All(*Open(*content, "disk")), model);
}

TEST_F(OverlayTest, AWriteAcrossGroupsOfTheMapIsWhole) {
  constexpr std::uint64_t Edge = COverlayMap::BlocksOfGroup * BlockSize;
  MakeSource(10);
  const std::string data = Pattern(4 * Block + 2, 9);
  {
    const auto content = MakeOverlaid();
    ASSERT_EQ(Write(*Open(*content, "disk"), Edge - 2 * Block - 1, data), 0U);
  }
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  EXPECT_EQ(Read(*item, Edge - 2 * Block - 1, data.size() + 1), data);
  EXPECT_EQ(Read(*item, Edge - 2 * Block - 3, 2), std::string(2, '\0'));
  EXPECT_EQ(Read(*item, 8, 4), Pattern(10, 1).substr(8) + std::string(2, '\0'));
}

TEST_F(OverlayTest, AWritePastTheLargestFileFails) {
  MakeSource(10);
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  EXPECT_EQ(Write(*item, mount_agent::MaxOverlaidSize - 1, "xy"), error::FileTooLarge);
  EXPECT_EQ(Write(*item, 0xFFFFFFFFFFFFFFFF, "x"), error::FileTooLarge);
  EXPECT_EQ(Write(*item, 0x7FFFFFFFFFFFFFFF, "x"), error::FileTooLarge);
  EXPECT_EQ(Size(*item), 10U);
  EXPECT_EQ(Write(*item, mount_agent::MaxOverlaidSize - 1, "x"), 0U);
  EXPECT_EQ(Size(*item), mount_agent::MaxOverlaidSize);
  EXPECT_LT(DiskSpaceOf(OverlayFile("disk")), 100'000U);
}

TEST_F(OverlayTest, ReadOnlyShowsWhatWasWrittenAndTakesNothing) {
  std::string model = MakeSource(2 * Block);
  {
    const auto content = MakeOverlaid();
    WriteBoth(*Open(*content, "disk"), model, 100, "written");
  }
  const std::string before = ReadFile(OverlayFile("disk"));
  const auto content = MakeContent(writes_t::Refused, true);
  const item_ptr_t item = Open(*content, "disk");
  EXPECT_EQ(All(*item), model);
  EXPECT_EQ(Write(*item, 0, "X"), error::AccessDenied);
  EXPECT_EQ(ReadFile(OverlayFile("disk")), before);
}

TEST_F(OverlayTest, SyncedWritesAreTheSame) {
  std::string model = MakeSource(2 * Block);
  {
    const auto content = MakeContent(writes_t::ToOverlaySync, true);
    WriteBoth(*Open(*content, "disk"), model, 100, "written");
    EXPECT_EQ(content->Flush(), 0U);
  }
  const auto content = MakeOverlaid();
  EXPECT_EQ(All(*Open(*content, "disk")), model);
}

TEST_F(OverlayTest, AnEmptyOverlayFileIsANewOne) {
  std::string model = MakeSource(Block);
  WriteFile(OverlayFile("disk"), "");
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  WriteBoth(*item, model, 1, "x");
  EXPECT_EQ(All(*item), model);
}

TEST_F(OverlayTest, TwoLongNamesHaveOverlaysOfTheirOwn) {
  const std::string one = std::string(254, 'a') + '1';
  const std::string two = std::string(254, 'a') + '2';
  WriteFile(SourceFile(one), "one");
  WriteFile(SourceFile(two), "two");
  {
    const auto content = MakeOverlaid();
    ASSERT_EQ(Write(*Open(*content, one), 0, "O"), 0U);
    ASSERT_EQ(Write(*Open(*content, two), 0, "T"), 0U);
  }
  const auto content = MakeOverlaid();
  EXPECT_EQ(All(*Open(*content, one)), "One");
  EXPECT_EQ(All(*Open(*content, two)), "Two");
}

class OverlayRefusalTest : public OverlayTest {
 protected:
  OverlayRefusalTest() {
    model_ = MakeSource(8 * Block);
    const auto content = MakeOverlaid();
    WriteBoth(*Open(*content, "disk"), model_, 2 * Block, Pattern(2 * Block, 5));
  }

  std::string model_;
};

TEST_F(OverlayRefusalTest, TakesWhatIsSound) {
  EXPECT_EQ(Refusal(), "");
}

TEST_F(OverlayRefusalTest, RefusesASourceOfAnotherSize) {
  std::filesystem::resize_file(SourceFile("disk"), 7 * Block);
  EXPECT_NE(Refusal().find("It belongs to a file of 32768 bytes, and [disk] has 28672."), std::string::npos);
}

TEST_F(OverlayRefusalTest, RefusesASourceThatWasChangedSince) {
  std::filesystem::last_write_time(SourceFile("disk"),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  EXPECT_NE(Refusal().find("The file [disk] was changed after it was made."), std::string::npos);
}

TEST_F(OverlayRefusalTest, RefusesTheOverlayOfAnotherFile) {
  WriteFile(SourceFile("other"), model_);
  std::filesystem::copy(OverlayFile("disk"), OverlayFile("other"));
  try {
    MakeOverlaid();
    FAIL();
  } catch (const exc::exc_base_t& failure) {
    EXPECT_NE(std::string(failure.what()).find("It belongs to the file [disk], not to [other]."), std::string::npos);
  }
}

TEST_F(OverlayRefusalTest, RefusesAnyByteThatDiffersInHeaderAndMap) {
  for (std::uint64_t offset = 0; offset < 2 * Block; offset += (offset % Block < 64 ? 1 : 61)) {
    ChangeByte(offset);
    EXPECT_NE(Refusal(), "") << offset;
    ChangeByte(offset);
  }
  EXPECT_EQ(Refusal(), "");
}

TEST_F(OverlayRefusalTest, RefusesOneThatWasCut) {
  const std::uint64_t whole = std::filesystem::file_size(OverlayFile("disk"));
  const std::string data = ReadFile(OverlayFile("disk"));
  for (const std::uint64_t length : {std::uint64_t{1}, std::uint64_t{Block - 1}, std::uint64_t{Block + 20},
                                     std::uint64_t{2 * Block}, whole - Block, whole - 1}) {
    std::filesystem::resize_file(OverlayFile("disk"), length);
    EXPECT_NE(Refusal(), "") << length;
    WriteFile(OverlayFile("disk"), data);
  }
  EXPECT_EQ(Refusal(), "");
}

TEST_F(OverlayRefusalTest, RefusesOneThatIsInUse) {
  const platform::descriptor_t other(::open(OverlayFile("disk").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
  EXPECT_NE(Refusal().find("Another agent uses it."), std::string::npos);
}

TEST_F(OverlayRefusalTest, RefusesALink) {
  std::filesystem::rename(OverlayFile("disk"), folder_ / "moved");
  std::filesystem::create_symlink(folder_ / "moved", OverlayFile("disk"));
  EXPECT_NE(Refusal(), "");
}

TEST_F(OverlayTest, AWriteThatFailsForWantOfRoomLosesNothingAndLeavesNoTraceBehindTheEnd) {
  std::string model = MakeSource(2 * Block);
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  WriteBoth(*item, model, Block, "kept");
  // The limit of a file's length stands for a full disk: part of the write goes through.
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit tight{COverlayMap::PlaceOf(3) + 10, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const platform::error_t failure = Write(*item, 2 * Block, Pattern(4 * Block, 8));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  std::signal(SIGXFSZ, oldHandler);
  EXPECT_NE(failure, error::Success);
  EXPECT_EQ(All(*item), model);
  // A file that grows past the failed write shows zeros there.
  WriteBoth(*item, model, 7 * Block, "end");
  EXPECT_EQ(All(*item), model);
}

// What the process that is killed writes: the number of the write in each of its bytes, at a place that follows from
// the number. It tells each number once it was answered.
struct SWrite {
  std::size_t offset;
  std::size_t length;
};
SWrite NthWrite(unsigned n) {
  return {(n * 2654435761U) % (24 * Block), 1 + (n * 40503U) % (3 * Block)};
}

[[noreturn]] void WriteUntilKilled(const mount_agent::SFolderOptions& options, unsigned first, int told) {
  try {
    mount_agent::CFolderContent content(options);
    boost::shared_ptr<mount_agent::IMountedItem> item;
    if (content.Open({"disk"}, item) != error::Success)
      ::_exit(2);
    for (unsigned n = first;; ++n) {
      const SWrite write = NthWrite(n);
      const std::string data(write.length, static_cast<char>(n));
      if (item->Write(write.offset, data.data(), data.size()) != error::Success)
        ::_exit(3);
      if (::write(told, &n, sizeof(n)) != sizeof(n))
        ::_exit(4);
    }
  } catch (...) {
    ::_exit(5);
  }
}

TEST_F(OverlayTest, NoAnsweredWriteIsLostWhenTheAgentIsKilled) {
  std::string model = MakeSource(20 * Block + 17);
  const std::string original = model;
  unsigned next = 0;
  for (unsigned round = 0; round < 25; ++round) {
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(pipe[0]);
      WriteUntilKilled({Source(), Overlay(), writes_t::ToOverlay}, next, pipe[1]);
    }
    ::close(pipe[1]);
    // Killed behind a number of writes that differs, and wherever in the following one.
    const unsigned until = next + 1 + round * 7 % 20;
    unsigned answered = 0;
    bool killed = false;
    while (::read(pipe[0], &answered, sizeof(answered)) == sizeof(answered)) {
      const SWrite write = NthWrite(answered);
      model.resize(std::max(model.size(), write.offset + write.length));
      model.replace(write.offset, write.length, write.length, static_cast<char>(answered));
      next = answered + 1;
      if (next >= until && !killed) {
        ::kill(child, SIGKILL);
        killed = true;
      }
    }
    ::close(pipe[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "The child ended with " << WEXITSTATUS(status);

    const auto content = MakeOverlaid();
    const item_ptr_t item = Open(*content, "disk");
    // The write that was never answered may be there, in part or not at all.
    const SWrite last = NthWrite(next);
    const std::string found = All(*item);
    ASSERT_GE(found.size(), model.size());
    ASSERT_LE(found.size(), std::max(model.size(), last.offset + last.length));
    std::string expected = model;
    expected.resize(found.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
      const bool touched = i >= last.offset && i < last.offset + last.length;
      ASSERT_TRUE(found[i] == expected[i] || (touched && found[i] == static_cast<char>(next)))
          << "Round " << round << ", byte " << i;
    }
    model = found;
  }
  EXPECT_EQ(ReadFile(SourceFile("disk")), original);
}

TEST_F(OverlayTest, ReadersAndWritersMeetWithoutTearingBlocks) {
  MakeSource(4 * Block);
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  ASSERT_EQ(Write(*item, 0, std::string(4 * Block, 'a')), 0U);
  std::thread writer([&] {
    for (int i = 0; i < 300; ++i)
      EXPECT_EQ(Write(*item, 0, std::string(4 * Block, static_cast<char>('a' + i % 26))), 0U);
  });
  for (int i = 0; i < 300; ++i) {
    const std::string data = Read(*item, 0, 4 * Block);
    EXPECT_EQ(data.find_first_not_of(data[0]), std::string::npos);
  }
  writer.join();
}

}  // namespace
