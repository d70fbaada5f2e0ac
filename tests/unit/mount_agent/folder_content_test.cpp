#include "kelvo-mount-agent/folder_content.h"

#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "foundation/exc.h"
#include "unit/mount_agent/folder_fixture.h"

namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using mount_agent::writes_t;

class FolderContentTest : public test::FolderFixture {
 protected:
  static std::vector<std::string> Names(content_t& content) {
    std::vector<mount_agent::SListedItem> items;
    EXPECT_EQ(content.List({}, items), 0U);
    std::vector<std::string> names;
    for (const auto& item : items)
      names.push_back(item.name);
    return names;
  }
  static platform::error_t TryOpen(content_t& content, std::vector<std::string_view> path) {
    item_ptr_t item;
    const platform::error_t failure = content.Open(path, item);
    EXPECT_EQ(failure == error::Success, item != nullptr);
    return failure;
  }
};

TEST_F(FolderContentTest, SeesRegularFilesRightInTheFolder) {
  WriteFile(SourceFile("disk.img"), "data");
  WriteFile(SourceFile("back\\slash"), "x");
  WriteFile(SourceFile("latin\xE9"), "x");
  WriteFile(folder_ / "outside", "secret");
  fs::create_directory(SourceFile("sub"));
  WriteFile(SourceFile("sub/inner"), "x");
  fs::create_symlink("disk.img", SourceFile("link"));
  fs::create_symlink("../outside", SourceFile("escape"));
  fs::create_symlink(folder_ / "outside", SourceFile("absolute"));
  ASSERT_EQ(::mkfifo(SourceFile("fifo").c_str(), 0600), 0);
  const auto content = MakeContent(writes_t::Refused, false);
  EXPECT_EQ(Names(*content), (std::vector<std::string>{"disk.img", "link"}));
  EXPECT_EQ(All(*Open(*content, "link")), "data");
  for (const char* name : {"back\\slash", "latin\xE9", "sub", "escape", "absolute", "fifo", "..", ".", "", "none"})
    EXPECT_EQ(TryOpen(*content, {name}), error::FileNotFound) << name;
  EXPECT_EQ(TryOpen(*content, {std::string_view("disk.img\0x", 10)}), error::FileNotFound);
  EXPECT_EQ(TryOpen(*content, {}), error::FileNotFound);
  EXPECT_EQ(TryOpen(*content, {"sub", "inner"}), error::FileNotFound);
  EXPECT_EQ(TryOpen(*content, {"..", "outside"}), error::FileNotFound);
}

/// The thread's right to files is that of an account without any.
class ForeignUser {
 public:
  ForeignUser() { ::setfsuid(65534); }
  ForeignUser(const ForeignUser&) = delete;
  ForeignUser& operator=(const ForeignUser&) = delete;
  ~ForeignUser() { ::setfsuid(::geteuid()); }
};

TEST_F(FolderContentTest, WhatCannotBeReachedIsNotSaidToBeGone) {
  WriteFile(SourceFile("disk"), "data");
  fs::create_symlink("disk", SourceFile("link"));
  const auto content = MakeContent(writes_t::Refused, false);
  ASSERT_EQ(::chmod(Source().c_str(), 0600), 0);
  {
    const ForeignUser noRights;
    EXPECT_EQ(TryOpen(*content, {"disk"}), error::AccessDenied);
    std::vector<mount_agent::SListedItem> items;
    EXPECT_EQ(content->List({}, items), error::AccessDenied);
  }
  ASSERT_EQ(::chmod(Source().c_str(), 0700), 0);
  EXPECT_EQ(Names(*content), (std::vector<std::string>{"disk", "link"}));
  fs::create_symlink("circle", SourceFile("circle"));
  fs::create_symlink("nowhere", SourceFile("dangling"));
  EXPECT_EQ(Names(*content), (std::vector<std::string>{"disk", "link"}));
  EXPECT_EQ(TryOpen(*content, {"circle"}), error::FileNotFound);
  EXPECT_EQ(TryOpen(*content, {"dangling"}), error::FileNotFound);
}

TEST_F(FolderContentTest, ListsNothingBelowTheRoot) {
  fs::create_directory(SourceFile("sub"));
  const auto content = MakeContent(writes_t::Refused, false);
  std::vector<mount_agent::SListedItem> items;
  EXPECT_EQ(content->List({"sub"}, items), error::PathNotFound);
}

TEST_F(FolderContentTest, TellsSizesAlsoOfFilesThatGrewInTheOverlay) {
  WriteFile(SourceFile("disk"), "12345");
  const auto content = MakeOverlaid();
  ASSERT_EQ(Write(*Open(*content, "disk"), 10, "x"), 0U);
  std::vector<mount_agent::SListedItem> items;
  ASSERT_EQ(content->List({}, items), 0U);
  ASSERT_EQ(items.size(), 1U);
  EXPECT_EQ(items[0].size, 11U);
  EXPECT_EQ(items[0].kind, 0U);
}

TEST_F(FolderContentTest, RefusesWritesUnlessToldWhereTheyGo) {
  WriteFile(SourceFile("disk"), "data");
  const auto content = MakeContent(writes_t::Refused, false);
  EXPECT_EQ(Write(*Open(*content, "disk"), 0, "X"), error::AccessDenied);
  EXPECT_EQ(ReadFile(SourceFile("disk")), "data");
}

TEST_F(FolderContentTest, WritesTheSourceWhenTold) {
  WriteFile(SourceFile("disk"), "data");
  const auto content = MakeContent(writes_t::ToSource, false);
  const item_ptr_t item = Open(*content, "disk");
  EXPECT_EQ(Write(*item, 2, "TALL"), 0U);
  EXPECT_EQ(All(*item), "daTALL");
  EXPECT_EQ(ReadFile(SourceFile("disk")), "daTALL");
}

TEST_F(FolderContentTest, ReadsFilesOfAnySizeAndLeavesThemSparse) {
  constexpr std::uint64_t Size = 7ULL << 40U;
  WriteFile(SourceFile("huge"), "head");
  ASSERT_EQ(::truncate(SourceFile("huge").c_str(), static_cast<off_t>(Size)), 0);
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "huge");
  EXPECT_EQ(FolderFixture::Size(*item), Size);
  EXPECT_EQ(Read(*item, 0, 6), std::string("head\0\0", 6));
  EXPECT_EQ(Read(*item, Size - 3, 10), std::string(3, '\0'));
  EXPECT_EQ(Write(*item, Size - 5, "tail!"), 0U);
  EXPECT_EQ(Read(*item, Size - 7, 10), std::string("\0\0tail!", 7));
  EXPECT_LT(DiskSpaceOf(SourceFile("huge")), 100'000U);
  EXPECT_LT(DiskSpaceOf(OverlayFile("huge")), 100'000U);
}

TEST_F(FolderContentTest, ReadsNearTheEndOfAllNumbersAreEmptyOrFail) {
  WriteFile(SourceFile("disk"), "data");
  const auto content = MakeOverlaid();
  const item_ptr_t item = Open(*content, "disk");
  char byte = 0;
  std::size_t got = 1;
  EXPECT_EQ(item->Read(0x7FFFFFFFFFFFFFFF, &byte, 1, got), error::FileTooLarge);
  ASSERT_EQ(Write(*item, 0, "D"), 0U);
  EXPECT_EQ(Read(*item, 0x7FFFFFFFFFFFFFFF, 1), "");
  EXPECT_EQ(Read(*item, 0xFFFFFFFFFFFFFFFF, 1), "");
}

TEST_F(FolderContentTest, FoldersThatCannotBeUsedAreToldBySentence) {
  const auto textOf = [](const mount_agent::SFolderOptions& options) {
    try {
      const content_t content(options);
    } catch (const exc::exc_base_t& failure) {
      return std::string(failure.what());
    }
    return std::string();
  };
  EXPECT_NE(textOf({folder_ / "none", "", writes_t::Refused}).find("The source folder ["), std::string::npos);
  EXPECT_NE(textOf({Source(), folder_ / "none", writes_t::Refused}).find("The overlay folder ["), std::string::npos);
  EXPECT_NE(textOf({Source(), Source() + "/.", writes_t::ToOverlay}).find("is the source folder"), std::string::npos);
  const auto first = MakeOverlaid();
  EXPECT_NE(textOf({Source(), Overlay(), writes_t::ToOverlay}).find("is used by another agent"), std::string::npos);
}

TEST_F(FolderContentTest, MakesTheOverlayFolder) {
  const content_t content({Source(), folder_ / "new", writes_t::ToOverlay});
  EXPECT_TRUE(fs::is_directory(folder_ / "new"));
}

TEST_F(FolderContentTest, ADamagedOverlayKeepsTheAgentFromStarting) {
  WriteFile(SourceFile("disk"), "data");
  WriteFile(OverlayFile("disk"), "something else");
  EXPECT_THROW(MakeOverlaid(), exc::runtime_exc_t);
  EXPECT_THROW(MakeContent(writes_t::Refused, true), exc::runtime_exc_t);
  EXPECT_EQ(ReadFile(OverlayFile("disk")), "something else");
}

}  // namespace
