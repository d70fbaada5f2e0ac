// A folder that is served, and an overlay folder, of a test's own.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "kelvo-mount-agent/folder_content.h"
#include "support/temp_dir.h"

namespace test {

class FolderFixture : public testing::Test {
 protected:
  using content_t = mount_agent::CFolderContent;
  using item_ptr_t = boost::shared_ptr<mount_agent::IMountedItem>;

  FolderFixture() {
    std::filesystem::create_directory(Source());
    std::filesystem::create_directory(Overlay());
  }

  std::string Source() const { return folder_ / "source"; }
  std::string Overlay() const { return folder_ / "overlay"; }
  std::string SourceFile(const std::string& name) const { return Source() + '/' + name; }
  std::string OverlayFile(const std::string& name) const {
    return Overlay() + '/' + mount_agent::COverlayFile::FileNameOf(name);
  }

  static void WriteFile(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
  }
  static std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::unique_ptr<content_t> MakeContent(mount_agent::writes_t writes, bool withOverlay) const {
    return std::make_unique<content_t>(
        mount_agent::SFolderOptions{Source(), withOverlay ? Overlay() : std::string(), writes});
  }
  std::unique_ptr<content_t> MakeOverlaid() const { return MakeContent(mount_agent::writes_t::ToOverlay, true); }

  static item_ptr_t Open(content_t& content, const std::string& name) {
    item_ptr_t item;
    EXPECT_EQ(content.Open({name}, item), 0U) << name;
    return item;
  }
  static std::string Read(mount_agent::IMountedItem& item, std::uint64_t offset, std::size_t length) {
    std::string data(length, '?');
    std::size_t got = 0;
    EXPECT_EQ(item.Read(offset, data.data(), length, got), 0U);
    data.resize(got);
    return data;
  }
  static std::string Bytes(const std::vector<platform::file_part_t>& parts) {
    std::string bytes;
    for (const platform::file_part_t& part : parts) {
      std::string data(part.length, '?');
      EXPECT_EQ(::pread(part.file, data.data(), part.length, static_cast<off_t>(part.offset)),
                static_cast<ssize_t>(part.length));
      bytes += data;
    }
    return bytes;
  }
  static platform::error_t Write(mount_agent::IMountedItem& item, std::uint64_t offset, const std::string& data) {
    return item.Write(offset, data.data(), data.size());
  }
  static std::uint64_t Size(mount_agent::IMountedItem& item) {
    std::uint64_t size = 0;
    EXPECT_EQ(item.GetSize(size), 0U);
    return size;
  }
  static std::string All(mount_agent::IMountedItem& item) {
    std::string data = Read(item, 0, static_cast<std::size_t>(Size(item)) + 1);
    std::vector<platform::file_part_t> parts;
    if (item.Locate(0, data.size(), parts))
      EXPECT_EQ(Bytes(parts), data) << "where they are said to lie";
    else
      EXPECT_TRUE(parts.empty());
    return data;
  }
  /// Bytes that differ from place to place.
  static std::string Pattern(std::size_t length, unsigned seed) {
    std::string data(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
      seed = seed * 1664525U + 1013904223U;
      data[i] = static_cast<char>(seed >> 24U);
    }
    return data;
  }
  static std::uint64_t DiskSpaceOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }

  const TempDir folder_;
};

}  // namespace test
