// A disk below the share, or below what the service stores, that is full, read-only or away.
#include <gmock/gmock.h>

#include "fault/support/fault_fixture.h"
#include "fault/support/stored_registry.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;

constexpr std::size_t BlockSize = 65536;

class DiskFaultsTest : public CFaultTest {
 protected:
  static std::string Block(std::size_t number) {
    return std::string(BlockSize, static_cast<char>('a' + static_cast<int>(number % 26)));
  }
  void ExpectBlocks(const bytes_t& file, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const SReadResult read = Client().Read(file, i * BlockSize, BlockSize);
      ASSERT_EQ(read.status, Ok);
      EXPECT_TRUE(read.data == Block(i)) << "block " << i;
    }
  }
};
KELVO_WIRE_SUITE(DiskFaultsTest);

TEST_P(DiskFaultsTest, AFullShareTakesNoWritesAndKeepsWhatItTook) {
  const auto disk = MakeDisk(service_.Root(), "2m");
  ASSERT_NO_FATAL_FAILURE(Begin());
  bytes_t file;
  ASSERT_EQ(Client().Create(root_, "file", &file), Ok);
  ASSERT_EQ(Client().Write(file, 0, Block(0)), Ok);
  const std::size_t before = Descriptors();
  std::size_t written = 1;
  std::uint32_t status = Ok;
  for (; written < 100 && (status = Client().Write(file, written * BlockSize, Block(written))) == Ok; ++written) {
  }
  EXPECT_EQ(status, DiskFull);
  ASSERT_NO_FATAL_FAILURE(ExpectBlocks(file, written));
  ExpectServing();
  Fill(service_.Root());
  disk->Resize("2m,nr_inodes=4");
  EXPECT_EQ(Client().MkDir(root_, "folder"), DiskFull);
  EXPECT_EQ(Client().Create(root_, "another"), DiskFull);
  EXPECT_EQ(Client().Lookup(root_, "another"), NoEntry);
  EXPECT_EQ(Client().Write(file, 0, Block(0)), Ok) << "what has its room already";
  ExpectDescriptors(before);

  EXPECT_EQ(Client().Remove(root_, "filler"), Ok) << "a full disk can be cleared through the share";
  EXPECT_EQ(Client().Write(file, written * BlockSize, Block(written).substr(0, 4096)), Ok);
  disk->Resize("16m,nr_inodes=1000");
  EXPECT_EQ(Client().Write(file, written * BlockSize, Block(written)), Ok);
  ASSERT_NO_FATAL_FAILURE(ExpectBlocks(file, written + 1));
  ExpectWell();
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(DiskFaultsTest, AFullRegistryRefusesNewItemsAloneAndGivesNoHandleThatWouldBeLost) {
  const auto disk = MakeDisk(StateFolder(), "4m");
  ASSERT_NO_FATAL_FAILURE(Begin());
  std::map<std::string, bytes_t> files;
  ASSERT_EQ(Client().Create(root_, "first", &files["first"]), Ok);
  ASSERT_EQ(Client().Create(root_, "second", &files["second"]), Ok);
  const std::size_t before = Descriptors();
  const std::string filler = Fill(StateFolder());

  // A page of the log may have room for a few still.
  std::string name;
  std::uint32_t status = Ok;
  for (int i = 0; i < 100 && status == Ok; ++i) {
    name = "file" + std::to_string(i);
    bytes_t handle;
    status = Client().Create(root_, name, &handle);
    if (status == Ok)
      files[name] = handle;
  }
  EXPECT_EQ(status, DiskFull);
  EXPECT_EQ(Client().Lookup(root_, name), DiskFull) << "a handle that cannot be stored would not outlive the service";
  EXPECT_EQ(Client().ReadDirPlus(root_, 0).status, DiskFull);
  ExpectServing();
  EXPECT_EQ(Client().Write(files["first"], 0, "content"), Ok);
  EXPECT_EQ(Client().Remove(root_, "second"), DiskFull) << "its record cannot be removed";
  EXPECT_EQ(Client().Lookup(root_, "second"), NoEntry);
  ExpectServing();
  ExpectDescriptors(before + 2);

  fs::remove(filler);
  EXPECT_EQ(Client().Lookup(root_, name, &files[name]), Ok);
  files.erase("second");
  bytes_t second;
  EXPECT_EQ(Client().Create(root_, "second", &second), Ok);
  ASSERT_EQ(Client().Write(second, 0, "new"), Ok);
  files["second"] = second;
  EXPECT_EQ(Client().List(root_).size(), files.size() + 1);
  service_.Kill();
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  NewClient();
  for (const auto& [each, handle] : files)
    EXPECT_EQ(Client().GetAttr(handle), Ok) << each;
  EXPECT_EQ(Client().Read(files["second"], 0, 100).data, "new");
  ExpectWell();
  CStoredRegistry registry(service_);
  EXPECT_EQ(registry.Integrity(), "ok");
  EXPECT_THAT(registry.PlacesStoredTwice(), IsEmpty());
}

TEST_P(DiskFaultsTest, AReadOnlyShareIsReadAndSaysThatItTakesNoChanges) {
  WriteFile(HostPath("known"), knownContent_);
  fs::create_directories(HostPath("folder"));
  const auto disk = MakeDisk(service_.Root(), "2m");
  service_.Start();
  root_ = NewClient().Mount().value();
  known_ = HandleOf("known");
  const bytes_t folder = HandleOf("folder");
  // No file is open yet, or it could not become so while it is served.
  disk->SetReadOnly(true);
  ExpectServing();
  const std::size_t before = Descriptors();
  SSetAttributes size;
  size.size = 10;
  EXPECT_EQ(Client().Write(known_, 0, "x"), HostAccessDenied);
  EXPECT_EQ(Client().SetAttr(known_, size), HostAccessDenied);
  EXPECT_EQ(Client().Create(root_, "new"), HostAccessDenied);
  EXPECT_EQ(Client().MkDir(root_, "new"), HostAccessDenied);
  EXPECT_EQ(Client().Rename(root_, "known", root_, "new"), HostAccessDenied);
  EXPECT_EQ(Client().Remove(root_, "known"), HostAccessDenied);
  EXPECT_EQ(Client().RmDir(root_, "folder"), HostAccessDenied);
  ExpectServing();
  EXPECT_EQ(HandleOf("known"), known_);
  EXPECT_EQ(HandleOf("folder"), folder);
  ExpectDescriptors(before);
  disk->SetReadOnly(false);
  ExpectWell();
  EXPECT_EQ(service_.Stop(), 0);
}

TEST_P(DiskFaultsTest, AShareFolderThatWasAwayIsServedUnderItsHandlesAgain) {
  fs::create_directories(HostPath("folder"));
  WriteFile(HostPath("folder/inner"), "inner");
  ASSERT_NO_FATAL_FAILURE(Begin());
  const bytes_t folder = HandleOf("folder");
  const bytes_t inner = HandleOf("inner", folder);
  const std::size_t before = Descriptors();
  const std::string away = service_.Root() + ".away";
  for (int round = 0; round < 3; ++round) {
    fs::rename(service_.Root(), away);
    // No handle is forgotten: what cannot be found now may be back in a moment.
    EXPECT_EQ(Client().GetAttr(inner), NoEntry);
    EXPECT_EQ(Client().GetAttr(folder), NoEntry);
    EXPECT_EQ(Client().Read(inner, 0, 10).status, NoEntry);
    EXPECT_NE(Client().Create(folder, "new"), Ok);
    EXPECT_NE(Client().MkDir(folder, "new"), Ok);
    fs::rename(away, service_.Root());
    EXPECT_EQ(Client().GetAttr(inner), Ok);
    EXPECT_EQ(Client().Read(inner, 0, 10).data, "inner");
    service_.Kill();
    ASSERT_NO_FATAL_FAILURE(service_.Start());
    NewClient();
    EXPECT_EQ(HandleOf("inner", HandleOf("folder")), inner);
  }
  ExpectServing();
  EXPECT_EQ(Client().Read(inner, 0, 10).data, "inner");
  ExpectDescriptors(before + 1);

  // Whoever looks makes an empty one, and what was seen to be missing is new when it comes back.
  fs::rename(service_.Root(), away);
  EXPECT_EQ(Client().GetAttr(root_), Ok);
  EXPECT_THAT(Client().List(root_), IsEmpty());
  EXPECT_TRUE(fs::remove(service_.Root()));
  fs::rename(away, service_.Root());
  EXPECT_EQ(Client().List(root_).size(), 2U);
  EXPECT_EQ(Client().GetAttr(inner), Stale);
  known_ = HandleOf("known");
  EXPECT_EQ(Client().Read(HandleOf("inner", HandleOf("folder")), 0, 10).data, "inner");
  ExpectWell();
}

}  // namespace
}  // namespace test
