// A machine starts from a backup that a mount agent offers: its writes go to the agent's overlay, and whichever of the
// two processes dies meanwhile, the guest loses nothing.
#include <gmock/gmock.h>

#include <sys/stat.h>

#include <filesystem>

#include "integration/support/agent.h"
#include "integration/support/guest.h"
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr const char* DiskUrl = "nfs://127.0.0.1/share/disk.img";

class BackupBootTest : public CWireTest {
 protected:
  void SetUp() override {
    before_ = disk_.Sha256();
    CWireTest::SetUp();
    if (!HasFatalFailure())
      agent_.Start();
    if (!HasFatalFailure())
      agent_.Publish();
  }

  /// Whatever a test does, the backup is what it was.
  void TearDown() override {
    EXPECT_EQ(disk_.Sha256(), before_);
    EXPECT_FALSE(CGuestDisk::HoldsIntact(disk_.Path(), "/var/written/boot-1-file-1"));
    if (HasFailure())
      std::printf("--- agent\n%s---\n", agent_.Output().c_str());
  }

  /// The disk as clients see it, carried over by a client of its own.
  std::string DiskOfTheExport() {
    std::string path = folder_.Path() + "/disk.img";
    const SResult result = RunProgram({"nfs-cp", DiskUrl, path});
    EXPECT_EQ(result.exitCode, 0) << result.err << result.out;
    return path;
  }

  /// Waits until the guest has told its result, and until it has powered off.
  static void ExpectResult(CGuest& guest, const std::string& result) {
    EXPECT_TRUE(guest.WaitFor("RESULT")) << "The machine is " << guest.Status() << '\n' << guest.LastLines();
    EXPECT_THAT(guest.Console(), HasSubstr("RESULT " + result)) << guest.LastLines();
    EXPECT_EQ(guest.WaitForExit(), 0) << guest.LastLines();
  }

  /// Waits until the service has its connection to the agent: after a loss, until its health check has made a new one.
  void WaitForMount() {
    EXPECT_TRUE(WaitUntil([this] { return agent_.Ctl({"locks"}).out.find("vm1") != std::string::npos; }, 90s));
  }

  CGuestDisk disk_;
  CTempFolder folder_;
  CMountAgent agent_{service_, "vm1", disk_.Folder()};
  std::string before_;
};
KELVO_WIRE_SUITE(BackupBootTest);

TEST_P(BackupBootTest, KeepsWhatTheGuestWritesAndLeavesTheBackupAsItIs) {
  {
    CGuest guest(DiskUrl, {.files = 3});
    ASSERT_TRUE(guest.WaitFor("kelvo-guest: boot 1,")) << guest.LastLines();
    EXPECT_THAT(agent_.Ctl({"locks"}).out, HasSubstr("vm1"));
    ExpectResult(guest, "ok boot=1 earlier=0 written=3");
  }
  // What was written is in the overlay and not in the agent.
  agent_.Kill();
  service_.Kill();
  agent_.Start();
  service_.Start();
  CGuest guest(DiskUrl, {.files = 2});
  ExpectResult(guest, "ok boot=2 earlier=3 written=2");

  const std::string seen = DiskOfTheExport();
  EXPECT_TRUE(CGuestDisk::HoldsIntact(seen, "/var/written/boot-1-file-3"));
  EXPECT_TRUE(CGuestDisk::HoldsIntact(seen, "/var/written/boot-2-file-1"));
  // Five files of half a MiB, and what a file system needs beside them: not the whole disk.
  struct stat overlay {};
  ASSERT_EQ(::stat((agent_.OverlayFolder() + "/disk.img.overlay").c_str(), &overlay), 0);
  EXPECT_GT(overlay.st_blocks * 512, 5 * 512 * 1024);
  EXPECT_LT(overlay.st_blocks * 512, 16 * 1024 * 1024);
  EXPECT_FALSE(fs::exists(HostPath("disk.img")));
}

TEST_P(BackupBootTest, TheGuestGoesOnAfterTheAgentDied) {
  CGuest guest(DiskUrl, {.files = 30, .onError = OnDiskError::Stop});
  ASSERT_TRUE(guest.WaitFor("read back file 2: ok")) << guest.LastLines();
  agent_.Kill();
  agent_.Start();
  // The calls on the dead pipe fail, and nothing but the health check makes a new one. The emulator tells its state
  // when all that were under way have ended, and one may wait 16 seconds for the pipe.
  ASSERT_TRUE(WaitUntil([&] { return guest.Status() == "io-error"; }, 150s)) << guest.Status() << guest.LastLines();
  WaitForMount();
  // The emulator still has the handle that it got before.
  guest.Continue();
  ExpectResult(guest, "ok boot=1 earlier=0 written=30");
  EXPECT_TRUE(CGuestDisk::HoldsIntact(DiskOfTheExport(), "/var/written/boot-1-file-1"));
}

TEST_P(BackupBootTest, TheGuestGoesOnAfterTheServiceDied) {
  CGuest guest(DiskUrl, {.files = 30, .onError = OnDiskError::Stop});
  ASSERT_TRUE(guest.WaitFor("read back file 2: ok")) << guest.LastLines();
  service_.Kill();
  service_.Start();
  ExpectResult(guest, "ok boot=1 earlier=0 written=30");
  EXPECT_TRUE(CGuestDisk::HoldsIntact(DiskOfTheExport(), "/var/written/boot-1-file-1"));
}

TEST_P(BackupBootTest, TheGuestGoesOnAfterBothDied) {
  CGuest guest(DiskUrl, {.files = 30, .onError = OnDiskError::Stop});
  ASSERT_TRUE(guest.WaitFor("read back file 2: ok")) << guest.LastLines();
  service_.Kill();
  agent_.Kill();
  // Without its agent the mount comes back with the file under its handle, and calls on it fail.
  service_.Start();
  EXPECT_EQ(agent_.Ctl({"locks"}).out, "Nothing is in use.\n");
  ASSERT_TRUE(WaitUntil([&] { return guest.Status() == "io-error"; }, 150s)) << guest.Status() << guest.LastLines();
  agent_.Start();
  WaitForMount();
  guest.Continue();
  ExpectResult(guest, "ok boot=1 earlier=0 written=30");
  EXPECT_TRUE(CGuestDisk::HoldsIntact(DiskOfTheExport(), "/var/written/boot-1-file-1"));
}

}  // namespace
