// A device that fails, while the service has files of it open and while it has not.
#include <gmock/gmock.h>

#include <map>

#include "fault/support/fault_fixture.h"
#include "fault/support/stored_registry.h"

namespace test {
namespace {

class IoFaultsTest : public CFaultTest {
 protected:
  void Begin() {
    UseFaults();
    WriteFile(HostPath("bad"), "content");
    WriteFile(HostPath("closed"), "closed");
    ASSERT_NO_FATAL_FAILURE(CFaultTest::Begin());
    bad_ = HandleOf("bad");
    closed_ = HandleOf("closed");
    EXPECT_EQ(Client().Read(bad_, 0, 100).data, "content");
    faults_.SetPath(service_.Root());
  }
  bytes_t bad_;     ///< Open in the service.
  bytes_t closed_;  ///< Not open yet.
};
KELVO_WIRE_SUITE(IoFaultsTest);

TEST_P(IoFaultsTest, AReadThatFailsIsToldAndTheNextIsTriedAgain) {
  // Data of this size does not come into the service's memory.
  constexpr std::uint32_t Large = 65536;
  WriteFile(HostPath("large"), std::string(Large, 'l'));
  ASSERT_NO_FATAL_FAILURE(Begin());
  const bytes_t large = HandleOf("large");
  EXPECT_EQ(Client().Read(large, 0, Large).data.size(), Large);
  const std::size_t before = Descriptors();
  faults_.SetPath(HostPath("bad"));
  faults_->readError = EIO;
  EXPECT_EQ(Client().Read(bad_, 0, 100).status, IoDevice);
  EXPECT_EQ(Client().Read(bad_, 0, 0).status, Ok) << "of which nothing is read";
  ExpectServing();
  faults_->readError = ESTALE;
  EXPECT_NE(Client().Read(bad_, 0, 100).status, Ok);
  faults_.SetPath(HostPath("large"));
  faults_->readError = EIO;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(Client().Read(large, 0, Large).status, IoDevice);
  ExpectServing();
  faults_.Clear();
  EXPECT_EQ(Client().Read(bad_, 0, 100).data, "content");
  EXPECT_EQ(Client().Read(large, 0, Large).data, std::string(Large, 'l'));
  ExpectDescriptors(before);
  ExpectWell();
}

TEST_P(IoFaultsTest, AWriteThatFailsIsToldAndTheNextIsTriedAgain) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  faults_.SetPath(HostPath("bad"));
  const std::pair<int, std::uint32_t> kinds[] = {
      {EIO, IoDevice}, {ENOSPC, DiskFull}, {EDQUOT, DiskFull}, {EROFS, HostAccessDenied}};
  SSetAttributes size;
  size.size = 3;
  for (const auto& [error, status] : kinds) {
    faults_->writeError = error;
    EXPECT_EQ(Client().Write(bad_, 0, "CON"), status);
    EXPECT_EQ(Client().SetAttr(bad_, size), status);
    EXPECT_EQ(Client().Create(root_, "bad"), status) << "it cannot be emptied";
    EXPECT_EQ(Client().Read(bad_, 0, 100).data, "content");
    ExpectServing();
  }
  EXPECT_GE(faults_->failed.load(), 12U);
  faults_.Clear();
  EXPECT_EQ(Client().Write(bad_, 0, "CON"), Ok);
  EXPECT_EQ(Client().Read(bad_, 0, 100).data, "CONtent");
  ExpectDescriptors(before);
  ExpectWell();
}

TEST_P(IoFaultsTest, NothingCanBeOpenedForAWhile) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  faults_->openError = EIO;
  EXPECT_EQ(Client().Read(closed_, 0, 100).status, IoDevice);
  EXPECT_EQ(Client().Write(closed_, 0, "x"), IoDevice);
  EXPECT_EQ(Client().Create(root_, "new"), IoDevice);
  EXPECT_EQ(Client().ReadDirPlus(root_, 0).status, IoDevice);
  EXPECT_EQ(Client().Read(bad_, 0, 100).data, "content") << "is open already";
  EXPECT_EQ(Client().GetAttr(known_), Ok);
  faults_.Clear();
  EXPECT_EQ(Client().Read(closed_, 0, 100).data, "closed");
  EXPECT_EQ(HandleOf("closed"), closed_);
  ExpectDescriptors(before + 1);
  ExpectWell();
}

TEST_P(IoFaultsTest, ARegistryWhoseDeviceFailsRefusesChangesAndLosesNothing) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  faults_.SetPath(StateFolder() + "/Kelvo/registry.db");
  faults_->writeError = EIO;
  bytes_t made;
  EXPECT_EQ(Client().Create(root_, "new", &made), IoDevice);
  EXPECT_EQ(Client().MkDir(root_, "folder"), IoDevice);
  EXPECT_EQ(Client().Remove(root_, "closed"), IoDevice);
  EXPECT_EQ(Client().Lookup(root_, "new"), IoDevice);
  ExpectServing();
  EXPECT_EQ(Client().Write(bad_, 0, "CON"), Ok) << "needs no registry";
  faults_.Clear();
  EXPECT_EQ(Client().Lookup(root_, "new", &made), Ok);
  ExpectDescriptors(before + 1);
  ExpectWell();
  service_.Kill();
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  NewClient();
  EXPECT_EQ(Client().GetAttr(made), Ok);
  EXPECT_EQ(Client().Read(bad_, 0, 100).data, "CONtent");
  EXPECT_EQ(Client().GetAttr(closed_), Stale);
  ExpectWell();
}

TEST_P(IoFaultsTest, ARegistryThatCannotBeSyncedLosesNothing) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  faults_.SetPath(StateFolder() + "/Kelvo/registry.db");
  faults_->syncError = EIO;
  // The log of the registry is synced when it is taken over into the file, which is once in thousands of changes. Until
  // that succeeds the log grows, and all that was answered is in it.
  std::map<std::string, bytes_t> made;
  for (int i = 0; i < 20000 && faults_->failed == 0; ++i) {
    const std::string name = "new" + std::to_string(i);
    ASSERT_EQ(Client().Create(root_, name, &made[name]), Ok) << name;
  }
  EXPECT_GT(faults_->failed.load(), 0U);
  EXPECT_EQ(Client().Create(root_, "meanwhile", &made["meanwhile"]), Ok);
  ExpectServing();
  faults_.Clear();
  EXPECT_EQ(Client().Create(root_, "after"), Ok);
  service_.Kill();
  ASSERT_NO_FATAL_FAILURE(service_.Start());
  NewClient();
  for (const auto& [name, handle] : made)
    ASSERT_EQ(Client().GetAttr(handle), Ok) << name;
  EXPECT_EQ(Client().Lookup(root_, "after"), Ok);
  EXPECT_EQ(CStoredRegistry(service_).Integrity(), "ok");
  ExpectWell();
}

TEST_P(IoFaultsTest, ClocksMayJump) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  const std::size_t before = Descriptors();
  constexpr std::int64_t Day = 86400;
  SSetAttributes now;
  now.mtimeHow = 1;
  for (const std::int64_t shift : {Day, -Day, 3650 * Day, -3650 * Day, std::int64_t{0}}) {
    faults_->clockSeconds = shift;
    ExpectServing();
    EXPECT_EQ(Client().SetAttr(bad_, now), Ok);
    SAttributes attributes;
    EXPECT_EQ(Client().GetAttr(bad_, &attributes), Ok);
    EXPECT_NEAR(static_cast<double>(attributes.mtime[0]), static_cast<double>(time(nullptr) + shift), 2 * Day)
        << "the server's time is what its clock says";
    ExpectWell();
    EXPECT_NO_THROW(CNfsClient().List(root_)) << "from a connection that came after the jump";
  }
  ExpectDescriptors(before + 1);
  EXPECT_EQ(service_.Stop(), 0);
}

}  // namespace
}  // namespace test
