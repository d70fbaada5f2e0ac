// A log that cannot be written.
#include <gmock/gmock.h>

#include "fault/support/fault_fixture.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class LogFolderTest : public CFaultTest {
 protected:
  void SetUp() override { fs::create_directories(LogFolder()); }
  std::string LogFolder() const { return fs::path(service_.LogPath()).parent_path().string(); }
  /// Makes the service write lines: each share that is mounted and each folder made leaves some.
  void MakeLines() {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(Client().MkDir(root_, "lines"), Ok);
      EXPECT_EQ(Client().RmDir(root_, "lines"), Ok);
    }
  }
};
KELVO_WIRE_SUITE(LogFolderTest);

TEST_P(LogFolderTest, AFullDiskCostsLinesAndNothingElse) {
  const auto disk = MakeDisk(LogFolder(), "1m");
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  const std::string filler = Fill(LogFolder());
  for (int i = 0; i < 20; ++i)
    MakeLines();
  ExpectWell();
  ExpectDescriptors(before);
  fs::remove(filler);
  const std::size_t size = service_.LogText().size();
  MakeLines();
  EXPECT_GT(service_.LogText().size(), size) << "lines are written again";
  EXPECT_THAT(service_.LogText().substr(size), HasSubstr("Subfolder was deleted."));
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(LogFolderTest, AServiceStartsWithAFullLogDisk) {
  const auto disk = MakeDisk(LogFolder(), "1m");
  Fill(LogFolder());
  ASSERT_NO_FATAL_FAILURE(Begin());
  MakeLines();
  ExpectWell();
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(LogFolderTest, AFolderThatHasGoneIsDoneWithoutAndFoundAgain) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  fs::rename(LogFolder(), LogFolder() + ".away");
  MakeLines();
  ExpectWell();
  fs::create_directories(LogFolder());
  EXPECT_TRUE(WaitUntil([&] {
    MakeLines();
    return fs::exists(service_.LogPath());
  })) << "the log is made again where it belongs";
  MakeLines();
  EXPECT_THAT(service_.LogText(), HasSubstr("Subfolder was deleted."));
  ExpectDescriptors(before);
  fs::remove_all(LogFolder());
  ExpectWell();
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(LogFolderTest, ADeviceThatFailsCostsLinesAndNothingElse) {
  UseFaults();
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  faults_.SetPath(LogFolder());
  faults_->writeError = EIO;
  faults_->openError = EIO;
  MakeLines();
  ExpectWell();
  EXPECT_GT(faults_->failed.load(), 0U);
  faults_.Clear();
  MakeLines();
  ExpectDescriptors(before);
  EXPECT_EQ(service_.Stop(), 0);
}

}  // namespace
}  // namespace test
