// A machine starts from a disk in a share: boot loader, kernel and root file system come from there, by way of an
// emulator's own NFS client, and what it writes goes there.
#include <gmock/gmock.h>

#include <filesystem>

#include "integration/support/guest.h"
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr const char* DiskUrl = "nfs://127.0.0.1/share/disk.img";

class GuestBootTest : public CWireTest {
 protected:
  void SetUp() override {
    CWireTest::SetUp();
    disk_.CopyTo(HostPath("disk.img"));
  }

  CGuestDisk disk_;
};
KELVO_WIRE_SUITE(GuestBootTest);

TEST_P(GuestBootTest, StartsFromAHostFolderAndKeepsWhatItWrites) {
  for (const char* const result : {"RESULT ok boot=1 earlier=0 written=3", "RESULT ok boot=2 earlier=3 written=3"}) {
    CGuest guest(DiskUrl, {.files = 3});
    ASSERT_TRUE(guest.WaitFor("RESULT")) << guest.LastLines();
    EXPECT_THAT(guest.Console(), HasSubstr(result)) << guest.LastLines();
    EXPECT_THAT(guest.Console(), HasSubstr("the boot loader found its settings on the disk\n"));
    EXPECT_THAT(guest.Console(), HasSubstr(", root file system on /dev/vda1 ext4 rw\n"));
    EXPECT_EQ(guest.WaitForExit(), 0) << guest.LastLines();
  }
  for (const char* const file : {"/var/written/boot-1-file-3", "/var/written/boot-2-file-1"}) {
    EXPECT_TRUE(CGuestDisk::HoldsIntact(HostPath("disk.img"), file)) << file;
    EXPECT_FALSE(CGuestDisk::HoldsIntact(disk_.Path(), file)) << file;
  }
}

TEST_P(GuestBootTest, GoesOnWhenTheServiceWasKilledAndStartedAnew) {
  CGuest guest(DiskUrl, {.files = 40, .onError = OnDiskError::Stop});
  ASSERT_TRUE(guest.WaitFor("read back file 2: ok")) << guest.LastLines();
  service_.Kill();
  EXPECT_TRUE(guest.IsRunning());
  service_.Start();
  ASSERT_TRUE(guest.WaitFor("RESULT")) << guest.Status() << guest.LastLines();
  EXPECT_THAT(guest.Console(), HasSubstr("RESULT ok boot=1 earlier=0 written=40")) << guest.LastLines();
  EXPECT_EQ(guest.WaitForExit(), 0) << guest.LastLines();
  EXPECT_TRUE(CGuestDisk::HoldsIntact(HostPath("disk.img"), "/var/written/boot-1-file-1"));
}

}  // namespace
