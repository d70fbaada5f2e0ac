// Commands of administrators whose registry gives out on the way.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <list>
#include <vector>

#include "config/backup_mount_cfg.h"
#include "config/reg_config.h"
#include "support/fake_mount_agent.h"
#include "support/forwarding_registry.h"
#include "virtual_fs_fixture.h"

namespace test {
namespace {

constexpr int Unlimited = std::numeric_limits<int>::max();

/// Carries out so many writes, commits among them, and from then on none.
class EndingRegistry : public ForwardingRegistry {
 public:
  using ForwardingRegistry::ForwardingRegistry;

  std::atomic<int> writes = Unlimited;

  platform::error_t CreateKey(std::string_view key) override {
    return Ends() ? platform::error::DiskFull : ForwardingRegistry::CreateKey(key);
  }
  platform::error_t DeleteKey(std::string_view key) override {
    return Ends() ? platform::error::DiskFull : ForwardingRegistry::DeleteKey(key);
  }
  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    return Ends() ? platform::error::DiskFull : ForwardingRegistry::SetValues(key, values);
  }
  platform::error_t DeleteValue(std::string_view key, std::string_view name) override {
    return Ends() ? platform::error::DiskFull : ForwardingRegistry::DeleteValue(key, name);
  }
  platform::error_t Commit() override {
    if (!Ends())
      return ForwardingRegistry::Commit();
    ForwardingRegistry::Rollback();
    return platform::error::DiskFull;
  }

 private:
  bool Ends() { return writes == 0 || (writes != Unlimited && --writes < 0); }
};

class LateFailures : public VirtualFsFixture {
 protected:
  LateFailures() {
    backup_ = MakeFolder(root, "backup");
    other_ = MakeFolder(root, "other");
    first_.SetFile("disk", WireBytes("first"));
    first_.SetFile("of the first", WireBytes("x"));
    second_.SetFile("disk", WireBytes("second"));
  }

  static boost::shared_ptr<CBackupMountCfg> Cfg(const GUID& share, const char* folder, const char* pipe) {
    const auto cfg = boost::make_shared<CBackupMountCfg>();
    cfg->nfsFolderID = share;
    cfg->mountPoint = folder;
    cfg->vmName = pipe;
    cfg->pipe = pipe;
    return cfg;
  }
  void Mount(const char* folder, const char* pipe) { fs->MountBackupItems(uid_, Cfg(shareUid, folder, pipe)); }
  void Dismount() { fs->DismountBackupItems(uid_); }

  /// What administrators and clients see.
  std::string State() {
    std::string state;
    for (const auto& lock : fs->EnumLocks())
      state += lock.first + ' ' + lock.second + ", ";
    SRegConfigData catalogue;
    CRegConfig().Load(catalogue);
    for (const auto& [uid, cfg] : catalogue.mounts)
      state += cfg->vmName + " is stored in " + cfg->mountPoint + ", ";
    state += std::to_string(catalogue.shares.size()) + " shares are stored; ";
    for (const char* alias : {"vol", "late"}) {
      GUID uid;
      if (!fs->ItemsTab()->FindShareByAlias(alias, uid))
        continue;
      const std::uint64_t share = fs->ItemsTab()->GetShareFid(uid);
      state += std::string(alias) + ": ";
      for (const char* folder : {"backup", "other"}) {
        const auto found = Lookup(share, folder);
        const auto disk = found.status == NFS3_OK ? Lookup(FidFromHandle(found.object), "disk") : found;
        state += disk.status == NFS3_OK ? Read(FidFromHandle(disk.object)) : std::to_string(disk.status);
        state += found.status == NFS3_OK ? " " + std::to_string(List(FidFromHandle(found.object)).size()) + ", " : ", ";
      }
    }
    return state;
  }

  /// Runs a command with a registry that gives out at its first write, at its second, and so on until it passes. Each
  /// time it is done or not done at all, the same after a restart, and can be repeated. before: what leads to where it
  /// begins.
  void ExpectWhole(const std::function<void()>& before, const std::function<void()>& command, int leastWrites) {
    before();
    const std::string undone = State();
    command();
    const std::string done = State();
    ASSERT_NE(undone, done);
    int writes = 0;
    for (bool hasFailed = true; hasFailed; ++writes) {
      SCOPED_TRACE(writes);
      before();
      ASSERT_EQ(State(), undone);
      registry_.writes = writes;
      hasFailed = false;
      try {
        command();
      } catch (const std::exception&) {
        hasFailed = true;
      }
      registry_.writes = Unlimited;
      const std::string state = State();
      EXPECT_EQ(state, hasFailed && state == undone ? undone : done);
      Restart();
      EXPECT_EQ(State(), state);
      if (state == undone) {
        EXPECT_NO_THROW(command());
      }
      EXPECT_EQ(State(), done);
    }
    EXPECT_GT(writes, leastWrites);
  }

  const ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", temp / "run"};
  EndingRegistry registry_{registry};
  const ScopedRegistry replaced_{registry_};
  const GUID uid_ = Guid(7);
  FakeMountAgent first_{"vm1"};
  FakeMountAgent second_{"vm2"};
  std::uint64_t backup_ = InvalidFid;
  std::uint64_t other_ = InvalidFid;
};

TEST_F(LateFailures, ABackupIsMountedOrNot) {
  ExpectWhole([&] { Dismount(); }, [&] { Mount("backup", "vm1"); }, 3);
}

TEST_F(LateFailures, AMountIsReplacedInItsFolderOrNot) {
  ExpectWhole([&] { Mount("backup", "vm1"); }, [&] { Mount("backup", "vm2"); }, 3);
}

TEST_F(LateFailures, AMountIsMovedToAnotherFolderOrNot) {
  ExpectWhole([&] { Mount("backup", "vm1"); }, [&] { Mount("other", "vm2"); }, 4);
}

TEST_F(LateFailures, ABackupIsDismountedOrNot) {
  ExpectWhole([&] { Mount("backup", "vm1"); }, [&] { Dismount(); }, 3);
}

TEST_F(LateFailures, AShareIsMadeOrNot) {
  const auto withdraw = [&] {
    GUID uid;
    if (fs->ItemsTab()->FindShareByAlias("late", uid))
      fs->DismountShare(uid);
  };
  ExpectWhole(
      withdraw, [&] { CreateShare("late"); }, 3);
}

TEST_F(LateFailures, AShareIsDismountedOrNot) {
  const auto make = [&] {
    GUID uid;
    if (!fs->ItemsTab()->FindShareByAlias("late", uid))
      CreateShare("late");
  };
  ExpectWhole(
      make, [&] { fs->DismountShare(fs->GetShareId("late")); }, 3);
}

}  // namespace
}  // namespace test
