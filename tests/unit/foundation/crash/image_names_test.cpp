#include "foundation/crash/image_names.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "support/temp_dir.h"

namespace crash {
namespace {

class ImageNamesTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(process_.Open(failure_)) << failure_.Text(); }

  arena_t arena_{std::size_t{8} << 20};
  failure_t failure_;
  process_reader_t process_{static_cast<std::uint32_t>(getpid()), arena_};
  fixed_text_t<256> name_;
  std::uint64_t offset_ = 0;
};

TEST_F(ImageNamesTest, FindsAFunctionOfTheProgram) {
  const auto address = reinterpret_cast<std::uintptr_t>(&FindName);
  const module_info_t* const image = process_.FindModule(address);
  ASSERT_NE(image, nullptr);
  ASSERT_TRUE(FindName(*image, address + 3, name_, offset_));
  EXPECT_NE(name_.View().find("crash8FindName"), std::string_view::npos) << name_.View();
  EXPECT_EQ(offset_, 3U);
}

TEST_F(ImageNamesTest, FindsANameThatALibraryExports) {
  const auto address = reinterpret_cast<std::uintptr_t>(&getppid);
  const module_info_t* const image = process_.FindModule(address);
  ASSERT_NE(image, nullptr);
  ASSERT_TRUE(FindName(*image, address, name_, offset_));
  EXPECT_NE(name_.View().find("getppid"), std::string_view::npos) << name_.View();
}

TEST_F(ImageNamesTest, DataHasNoName) {
  // Of the file: zeroed data may lie behind what is mapped of it.
  static volatile int data = 42;
  const auto address = reinterpret_cast<std::uintptr_t>(&data);
  const module_info_t* const image = process_.FindModule(address);
  ASSERT_NE(image, nullptr);
  EXPECT_FALSE(FindName(*image, address, name_, offset_)) << name_.View() << " " << offset_;
}

TEST_F(ImageNamesTest, AFileThatIsDamagedOrCutIsLeftWithinItsBounds) {
  const test::TempDir dir;
  const std::string path = dir / "image";
  const auto address = reinterpret_cast<std::uintptr_t>(&FindName);
  module_info_t image = *process_.FindModule(address);
  std::ifstream stream(std::string(image.path), std::ios::binary);
  std::string bytes(std::istreambuf_iterator<char>(stream), {});
  image.path = path;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{63}, std::size_t{64}, std::size_t{4000},
                                 bytes.size() / 2, bytes.size() - 1}) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes.substr(0, size);
    FindName(image, address, name_, offset_);
  }
  // Places and counts that point far outside.
  std::memset(bytes.data() + 32, 0xff, 32);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  EXPECT_FALSE(FindName(image, address, name_, offset_));
  image.path = "/none";
  EXPECT_FALSE(FindName(image, address, name_, offset_));
}

}  // namespace
}  // namespace crash
