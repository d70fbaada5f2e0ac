// Backups in folders of shares, as administrators and clients see them.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "config/backup_mount_cfg.h"
#include "config/reg_config.h"
#include "support/captured_log.h"
#include "support/fake_mount_agent.h"
#include "support/forwarding_registry.h"
#include "virtual_fs_fixture.h"

namespace test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string UidText = "{00000000-0000-0000-0000-000000000007}";
constexpr nfsstat3 NFS3ERR_IO = 5;

class BackupMounts : public VirtualFsFixture {
 protected:
  BackupMounts() {
    cfg->nfsFolderID = shareUid;
    cfg->mountPoint = "backup";
    cfg->vmName = "machine";
    cfg->description = "of monday";
    cfg->pipe = "vm1";
    backup = MakeFolder(root, "backup");
    agent->SetFile("disk", WireBytes("hello"));
  }

  void Mount() { fs->MountBackupItems(mountUid, cfg); }
  std::vector<GUID> StoredMounts() const {
    SRegConfigData catalogue;
    CRegConfig().Load(catalogue);
    std::vector<GUID> uids;
    for (const auto& mount : catalogue.mounts)
      uids.push_back(mount.first);
    return uids;
  }
  std::size_t Place(const CapturedLog& log, const std::string& text) const {
    const auto lines = log.Texts();
    const auto found =
        std::find_if(lines.begin(), lines.end(), [&](const auto& line) { return line.starts_with(text); });
    EXPECT_NE(found, lines.end()) << text;
    return static_cast<std::size_t>(found - lines.begin());
  }
  void LoseAgent() {
    agent->SetScript([](const AgentRequest&) {
      return AgentReply::RawAndHangUp(WireNumber<std::uint32_t>(300000) + Bytes(100000));
    });
    List(backup);
    agent->SetScript({});
  }
  sattr3 Resized(std::uint64_t size) const {
    sattr3 attributes;
    attributes.setSize = true;
    attributes.size = size;
    return attributes;
  }

  const ScopedEnvironment runtime{"KELVO_RUNTIME_DIR", temp / "run"};
  const GUID mountUid = Guid(7);
  const boost::shared_ptr<CBackupMountCfg> cfg = boost::make_shared<CBackupMountCfg>();
  std::unique_ptr<FakeMountAgent> agent = std::make_unique<FakeMountAgent>("vm1");
  std::uint64_t backup = InvalidFid;
};

TEST_F(BackupMounts, AreMountedAndStored) {
  const CapturedLog log;
  Mount();
  EXPECT_LT(Place(log, "[COM] Mounting backup items."), Place(log, "    Mount ID: [" + UidText + "]"));
  EXPECT_LT(Place(log, "    Mount ID: [" + UidText + "]"), Place(log, "[COM] Items were mounted"));
  EXPECT_LT(Place(log, "[COM] Items were mounted"), Place(log, "[COM] Backup items were mounted."));
  SRegConfigData catalogue;
  CRegConfig().Load(catalogue);
  ASSERT_EQ(catalogue.mounts.size(), 1U);
  EXPECT_EQ(*catalogue.mounts.at(mountUid), *cfg);
}

TEST_F(BackupMounts, AFailureIsToldAndNothingIsStored) {
  agent.reset();
  EXPECT_EQ(ThrownText([&] { Mount(); }),
            "NFS mount agent is not started or not functional (2).\n"
            "Failed to connect to the FS server. Pipe: [vm1].\n"
            "Failed to mount backup items. VM name: [machine]. Comment: [of monday]. Mount point: [backup].");
  EXPECT_THAT(StoredMounts(), IsEmpty());
  EXPECT_THAT(fs->EnumLocks(), IsEmpty());
}

TEST_F(BackupMounts, AreDismountedAndForgotten) {
  Mount();
  const auto disk = Find(backup, "disk");
  EXPECT_TRUE(IsStored(disk));
  const CapturedLog log;
  fs->DismountBackupItems(mountUid);
  EXPECT_LT(Place(log, "[COM] Dismounting backup items. Mount ID: [" + UidText + "]."),
            Place(log, "[COM] Items were dismounted."));
  EXPECT_THAT(StoredMounts(), IsEmpty());
  EXPECT_FALSE(IsStored(disk));
  EXPECT_EQ(GetAttrs(disk).status, NFS3ERR_STALE);
  EXPECT_EQ(Lookup(backup, "disk").status, NFS3ERR_NOENT);
  EXPECT_THAT(List(backup), IsEmpty());
  EXPECT_EQ(Find(root, "backup"), backup) << "the folder stays";
  EXPECT_THAT(fs->EnumLocks(), IsEmpty());
}

TEST_F(BackupMounts, AFileMadeOverOneOfThemIsAllThatIsStored) {
  Mount();
  const auto fid = Find(backup, "disk");
  ASSERT_EQ(Read(fid), "hello");
  EXPECT_EQ(MakeFile(backup, "disk"), fid);
  ASSERT_EQ(Write(fid, 0, "of the host"), NFS3_OK);
  std::vector<std::string> backings;
  ASSERT_EQ(registry.EnumerateKeys("SOFTWARE\\KelvO\\Kelvo NFS\\ItemsCache\\" + std::to_string(fid), backings), 0U);
  EXPECT_THAT(backings, ElementsAre(platform::GuidToText(GUID{})));
  Restart();
  EXPECT_EQ(Read(fid), "of the host");
}

/// While something is written below a key, lets another thread do what it would undo.
class InterruptedRegistry : public ForwardingRegistry {
 public:
  InterruptedRegistry(platform::registry_t& target, std::string below, std::function<void()> other)
      : ForwardingRegistry(target), below_(std::move(below)), other_(std::move(other)) {
    replaced_ = SetInstance(this);
  }
  InterruptedRegistry(const InterruptedRegistry&) = delete;
  InterruptedRegistry& operator=(const InterruptedRegistry&) = delete;
  ~InterruptedRegistry() override { SetInstance(replaced_); }

  platform::error_t SetValues(std::string_view key, const std::vector<platform::registry_value_t>& values) override {
    if (key.find(below_) != std::string_view::npos && !interrupted_.exchange(true)) {
      ended_ = std::async(std::launch::async, other_);
      // It is over by then, or waits for what is done here.
      ended_.wait_for(std::chrono::milliseconds(100));
    }
    return ForwardingRegistry::SetValues(key, values);
  }
  void Join() {
    ASSERT_TRUE(interrupted_);
    ended_.get();
  }

 private:
  const std::string below_;
  const std::function<void()> other_;
  std::atomic<bool> interrupted_{false};
  std::future<void> ended_;
  platform::registry_t* replaced_ = nullptr;
};

TEST_F(BackupMounts, OneThatIsWithdrawnWhileItIsStoredIsNotStored) {
  InterruptedRegistry interrupted(registry, "\\Dynamic mounts\\", [this] { fs->DismountBackupItems(mountUid); });
  Mount();
  interrupted.Join();
  EXPECT_THAT(fs->EnumLocks(), IsEmpty());
  EXPECT_THAT(StoredMounts(), IsEmpty());
}

TEST_F(BackupMounts, AShareThatIsDismountedWhileItIsStoredIsNotStored) {
  InterruptedRegistry interrupted(registry, "\\Shared Folders\\",
                                  [this] { fs->DismountShare(fs->GetShareId("brief")); });
  const auto share = boost::make_shared<CNfsShareCfg>();
  share->nfsFolderName = "brief";
  share->localPath = local.string();
  const GUID uid = fs->CreateShare(share);
  interrupted.Join();
  EXPECT_THROW(fs->GetShareCfgCopy(uid), exc::runtime_exc_t);
  SRegConfigData catalogue;
  CRegConfig().Load(catalogue);
  EXPECT_FALSE(catalogue.shares.contains(uid));
}

TEST_F(BackupMounts, ADismountOfAnUnknownOneSucceeds) {
  const CapturedLog log;
  fs->DismountBackupItems(mountUid);
  EXPECT_TRUE(log.Has("Mount configuration \"" + UidText + "\" was not found."));
  EXPECT_TRUE(log.Has("[COM] Items were dismounted."));
}

TEST_F(BackupMounts, ADismountWhoseKeyIsGoneSucceeds) {
  Mount();
  registry.DeleteKey("SOFTWARE\\KelvO\\Kelvo NFS\\Dynamic mounts");
  EXPECT_NO_THROW(fs->DismountBackupItems(mountUid)) << "a key that is gone is no fault";
}

TEST_F(BackupMounts, StayAsTheyAreOnceTheFileSystemIsLocked) {
  Mount();
  const auto disk = Find(backup, "disk");
  fs->Lock();
  EXPECT_EQ(ThrownText([&] { Mount(); }), "Virtual file system is locked.");
  EXPECT_EQ(ThrownText([&] { fs->DismountBackupItems(mountUid); }), "Virtual file system is locked.");
  EXPECT_EQ(Read(disk), "hello") << "clients go on";
  EXPECT_EQ(fs->EnumLocks().size(), 1U);
}

TEST_F(BackupMounts, ConnectedOnesAreLocks) {
  FakeMountAgent second("vm2");
  Mount();
  auto other = boost::make_shared<CBackupMountCfg>(*cfg);
  other->pipe = "vm2";
  other->vmName = "alpha";
  fs->MountBackupItems(Guid(8), other);
  const CapturedLog log;
  EXPECT_EQ(fs->EnumLocks(), (std::set<service_lock_t>{{"alpha", ""}, {"machine", ""}}));
  EXPECT_TRUE(log.Has("Enumerating service locks."));
  second.SetScript(
      [](const AgentRequest&) { return AgentReply::RawAndHangUp(WireNumber<std::uint32_t>(300000) + Bytes(100000)); });
  LoseAgent();
  EXPECT_THAT(fs->EnumLocks(), IsEmpty());
}

TEST_F(BackupMounts, StandBesideTheHostsFiles) {
  PutLocal("backup/notes", "of the host");
  PutLocal("backup/Both", "of the host, too");
  agent->SetFile("both", WireBytes("of the backup"));
  Mount();
  EXPECT_THAT(List(backup), ElementsAre("Both", "disk", "notes"));
  EXPECT_EQ(Read(Find(backup, "disk")), "hello");
  EXPECT_EQ(Read(Find(backup, "notes")), "of the host");
  EXPECT_EQ(Read(Find(backup, "both")), "of the host, too") << "the host is asked first";
  const auto attributes = GetAttrs(Find(backup, "disk"));
  ASSERT_EQ(attributes.status, NFS3_OK);
  EXPECT_EQ(attributes.attributes.size, 5U);
  EXPECT_EQ(attributes.attributes.type, NF3REG);
}

TEST_F(BackupMounts, AreWrittenThroughTheAgent) {
  Mount();
  const auto disk = Find(backup, "disk");
  EXPECT_EQ(Write(disk, 5, " world"), NFS3_OK);
  EXPECT_EQ(agent->FileContent("disk"), WireBytes("hello world"));
  EXPECT_EQ(Read(disk), "hello world");
  EXPECT_EQ(GetAttrs(disk).attributes.size, 11U);
}

TEST_F(BackupMounts, FilesKeepTheirSizeAndTheirName) {
  Mount();
  const auto disk = Find(backup, "disk");
  EXPECT_EQ(SetAttrs(disk, Resized(1)).status, NFS3ERR_SERVERFAULT);
  EXPECT_NE(Rename(backup, "disk", backup, "renamed"), NFS3_OK);
  EXPECT_EQ(Read(disk), "hello");
  EXPECT_EQ(Find(backup, "disk"), disk);
  const auto file = MakeFile(backup, "new");
  EXPECT_EQ(Write(file, 0, "x"), NFS3_OK);
  EXPECT_EQ(GetLocal("backup/new"), "x") << "new files are the host's";
}

TEST_F(BackupMounts, AreForTheMountsHostAlone) {
  cfg->allowedHostAddr = "10.0.0.1";
  Mount();
  const auto disk = Find(backup, "disk");
  EXPECT_THAT(List(backup, Client("10.0.0.1")), ElementsAre("disk"));
  EXPECT_THAT(List(backup, Client("10.0.0.2")), IsEmpty());
  client = Client("10.0.0.2");
  EXPECT_EQ(GetAttrs(disk).status, NFS3ERR_ACCES);
  EXPECT_EQ(Lookup(backup, "disk").status, NFS3ERR_ACCES);
}

TEST_F(BackupMounts, ChildrenOutliveTheAgent) {
  Mount();
  const auto disk = Find(backup, "disk");
  PutLocal("backup/notes");
  EXPECT_THAT(List(backup), ElementsAre("disk", "notes"));
  LoseAgent();
  EXPECT_THAT(List(backup), ElementsAre("disk", "notes")) << "its known children are the truth";
  EXPECT_EQ(fs->ItemsTab()->LookupChild(backup, "disk"), disk);
  std::filesystem::remove(local / "backup" / "notes");
  EXPECT_THAT(List(backup), ElementsAre("disk")) << "the host's are not";
}

TEST_F(BackupMounts, WhatTheAgentDropsLeavesTheListing) {
  agent->SetFile("other", {});
  Mount();
  EXPECT_THAT(List(backup), ElementsAre("disk", "other"));
  agent->RemoveFile("other");
  EXPECT_THAT(List(backup), ElementsAre("disk"));
}

TEST_F(BackupMounts, AnAgentThatTalksNonsenseHidesNothingOfTheHost) {
  PutLocal("backup/notes");
  Mount();
  agent->SetScript([](const AgentRequest& request) -> std::optional<AgentReply> {
    if (request.command == 0)
      return AgentReply::Message(WireNumber<std::uint32_t>(0xFFFFFFFF));
    return std::nullopt;
  });
  EXPECT_THAT(List(backup), ElementsAre("notes"));
  agent->SetScript([](const AgentRequest& request) -> std::optional<AgentReply> {
    if (request.command != 0)
      return std::nullopt;
    const Bytes record = WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(0);
    return AgentReply::Message(WireNumber<std::uint32_t>(4) + record + WireString("../../etc/passwd") + record +
                               WireString("disk") + record + WireString("not to be opened") + record +
                               WireString(".."));
  });
  EXPECT_THAT(List(backup), ElementsAre("disk", "notes"));
}

TEST_F(BackupMounts, KeepTheirHandlesOverARestart) {
  Mount();
  const auto disk = Find(backup, "disk");
  const CapturedLog log;
  Restart();
  EXPECT_EQ(Read(disk), "hello");
  EXPECT_EQ(Find(backup, "disk"), disk);
  EXPECT_THAT(fs->EnumLocks(), ElementsAre(service_lock_t("machine", "")));
  EXPECT_LT(Place(log, "Item [backup] resumed."), Place(log, "Resuming backup mounts."));
  EXPECT_LT(Place(log, "Resuming backup mounts."), Place(log, "Item [disk] resumed."));
  EXPECT_LT(Place(log, "Item [disk] resumed."), Place(log, "Clearing NFS items registry cache."));
  EXPECT_LT(Place(log, "Clearing NFS items registry cache."), Place(log, "Virtual filesystem is initialized."));
  EXPECT_LT(Place(log, "Sending signal to stop health check thread."), Place(log, "Initializing virtual filesystem."));
}

TEST_F(BackupMounts, KeepTheirHandlesOverARestartWithoutAgent) {
  Mount();
  const auto disk = Find(backup, "disk");
  agent->SetFile("large", Bytes(100000));
  const auto large = Find(backup, "large");
  agent.reset();
  const CapturedLog log;
  Restart();
  EXPECT_TRUE(log.Has("[RFS] Item [disk] mounted in disconnected state. Size hint: [5]."));
  EXPECT_THAT(fs->EnumLocks(), IsEmpty());
  EXPECT_EQ(GetAttrs(large).attributes.size, 100000U);
  EXPECT_EQ(Read(disk), "status " + std::to_string(NFS3ERR_IO));
  EXPECT_THAT(List(backup), ElementsAre("disk", "large"));
  EXPECT_TRUE(IsStored(disk)) << "and the registry has not forgotten them";
  agent = std::make_unique<FakeMountAgent>("vm1");
  agent->SetFile("disk", WireBytes("again"));
  Restart();
  EXPECT_EQ(Read(disk), "again");
  EXPECT_EQ(GetAttrs(large).status, NFS3ERR_STALE) << "the agent has it no more";
  EXPECT_FALSE(IsStored(large));
}

TEST_F(BackupMounts, AFolderThatIsGoneStopsTheStart) {
  Mount();
  fs.reset();
  std::filesystem::remove_all(local / "backup");
  EXPECT_THAT(
      ThrownText([] { CVirtualFs second; }),
      AllOf(HasSubstr("The specified mount folder does not exist.\nFailed to publish backup items. VM: [machine]."),
            testing::EndsWith("Failed to initialize virtual file system.")));
}

TEST_F(BackupMounts, OfAShareThatIsGoneStopTheStart) {
  Mount();
  fs->DismountShare(shareUid);
  fs.reset();
  EXPECT_THAT(ThrownText([] { CVirtualFs second; }), HasSubstr("The specified mount folder does not exist."));
}

TEST_F(BackupMounts, TheEndStopsTheHealthCheckFirst) {
  Mount();
  const auto item = fs->ItemsTab()->GetItem(Find(backup, "disk"));
  const CapturedLog log;
  fs.reset();
  EXPECT_EQ(Place(log, "Sending signal to stop health check thread."), 0U);
  EXPECT_TRUE(log.Has("Health check thread is stopped."));
  EXPECT_THAT(log.Texts("Error"), IsEmpty());
  SFsReadBuffer buffer;
  EXPECT_EQ(ThrownText([&] { boost::dynamic_pointer_cast<IFsFile>(item)->Read(0, 1, buffer); }),
            "Procedure is cancelled.");
}

TEST_F(BackupMounts, ComeAndGoUnderClients) {
  PutLocal("backup/notes", "of the host");
  std::atomic<bool> isEnding{false};
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      while (!isEnding) {
        const auto found = Lookup(backup, "disk");
        if (found.status == NFS3_OK) {
          const std::string content = Read(FidFromHandle(found.object));
          EXPECT_TRUE(content == "hello" || content.starts_with("status ")) << content;
          good += content == "hello" ? 1 : 0;
          Write(FidFromHandle(found.object), 0, "hello");
        }
        if (t == 1) {
          EXPECT_THAT(List(backup), testing::Contains("notes"));
        }
      }
    });
  }
  for (int i = 0; i < 5; ++i) {
    Mount();
    for (const int before = good; good < before + 5;)
      std::this_thread::yield();
    fs->DismountBackupItems(mountUid);
    EXPECT_EQ(fs->ItemsTab()->LookupChild(backup, "disk"), InvalidFid);
  }
  isEnding = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_THAT(List(backup), ElementsAre("notes"));
  EXPECT_EQ(agent->FileContent("disk"), WireBytes("hello"));
}

}  // namespace
}  // namespace test
