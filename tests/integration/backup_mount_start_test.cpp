// Backup mounts over the ends and the starts of the service.
#include <filesystem>

#include "integration/support/backup_fixture.h"

namespace {

using namespace test;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

class BackupMountStartTest : public CBackupTest {
 protected:
  /// Starts the process alone, which must end by itself and in order; what it said.
  std::string FailToStart() {
    CProcess service({Program("KelvoNfsSvc")}, service_.Environment(), service_.Root() + "/../output");
    EXPECT_EQ(service.WaitForExit(), 0);
    return service_.Output() + service_.LogText();
  }
  /// What an administrator is told to do about it.
  static std::string AdviceFor(const std::string& id) {
    return "kelvo-reg delete 'SOFTWARE/KelvO/Kelvo NFS/Dynamic mounts/" + id + "'";
  }
};
KELVO_WIRE_SUITE(BackupMountStartTest);

TEST_P(BackupMountStartTest, AKilledServiceComesBackWithTheHandlesOfItsClients) {
  const bytes_t folder = MakeFolder("machines/web");
  WriteFile(HostPath("machines/web/notes.txt"), "host");
  const CBackupFolder first{{"disk.img", "first disk"}, {"other.img", "other"}};
  const CBackupFolder second{{"data.img", "second"}};
  CMountAgent firstAgent(service_, "vm1", first.Path());
  CMountAgent secondAgent(service_, "vm2", second.Path());
  ASSERT_NO_FATAL_FAILURE(firstAgent.Start());
  ASSERT_NO_FATAL_FAILURE(secondAgent.Start());
  Publish("vm1", "machines/web");
  Publish("vm2", "machines/web");
  const std::vector<SEntry> before = Client().List(folder);
  const bytes_t disk = HandleOf("disk.img", folder);
  ASSERT_EQ(Client().Write(disk, 0, "FIRST"), Ok);

  for (int round = 0; round < 3; ++round) {
    if (round == 2) {
      EXPECT_EQ(service_.Stop(), 0);
    } else {
      service_.Kill();
    }
    service_.Start();
    // Before anything else: no lookup has shown the service these items again.
    EXPECT_EQ(NewClient().Read(disk, 0, 20).data, "FIRST disk");
    EXPECT_EQ(Client().Write(disk, 6, std::to_string(round)), Ok);
    EXPECT_EQ(Client().Read(disk, 6, 4).data, std::to_string(round) + "isk");
    EXPECT_EQ(Client().Write(disk, 6, "d"), Ok);
    const std::vector<SEntry> after = Client().List(folder);
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(after[i].name, before[i].name);
      EXPECT_EQ(after[i].handle, before[i].handle) << before[i].name;
    }
    EXPECT_THAT(Locks(), ElementsAre("vm1", "vm2"));
  }
  EXPECT_EQ(ReadFile(first.File("disk.img")), "first disk");
}

TEST_P(BackupMountStartTest, WhatWasWithdrawnStaysWithdrawn) {
  const CBackupFolder backup{{"disk.img", "x"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  const std::string id = Publish("vm1");
  const bytes_t disk = HandleOf("disk.img");
  Withdraw(id);
  service_.Kill();
  service_.Start();
  EXPECT_EQ(NewClient().GetAttr(disk), Stale);
  EXPECT_THAT(NamesIn(root_), IsEmpty());
  EXPECT_THAT(Locks(), IsEmpty());
}

TEST_P(BackupMountStartTest, AFileThatWentMeanwhileIsStaleAndTheOthersAreThere) {
  const CBackupFolder backup{{"disk.img", "disk"}, {"swap.img", "swap"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const bytes_t disk = HandleOf("disk.img");
  const bytes_t swap = HandleOf("swap.img");
  service_.Kill();
  agent.Kill();
  fs::remove(backup.File("swap.img"));
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  service_.Start();
  EXPECT_EQ(NewClient().Read(disk, 0, 10).data, "disk");
  EXPECT_EQ(Client().GetAttr(swap), Stale);
  EXPECT_THAT(NamesIn(root_), ElementsAre("disk.img"));
}

TEST_P(BackupMountStartTest, WithoutTheFolderOfAMountTheServiceDoesNotStartAndSaysWhy) {
  MakeFolder("web");
  const CBackupFolder backup{{"disk.img", "disk"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  const std::string id = Publish("vm1", "web", {"--description", "the web server"});
  service_.Kill();
  fs::remove(HostPath("web"));
  EXPECT_THAT(FailToStart(), AllOf(HasSubstr("The specified mount folder does not exist."),
                                   HasSubstr("Failed to publish backup items. VM: [vm1]. Comment: [the web server]. "
                                             "NFS mount point: [web]. Mount ID: [" +
                                             id + "]."),
                                   HasSubstr(AdviceFor(id)), HasSubstr("Failed to initialize virtual file system.")));
  // The next start after the folder is there again.
  fs::create_directory(HostPath("web"));
  service_.Start();
  EXPECT_THAT(Locks(), ElementsAre("vm1"));
  NewClient();
  EXPECT_EQ(ContentOf(HandleOf("disk.img", HandleOf("web"))), "disk");
}

TEST_P(BackupMountStartTest, AShareCanGoWithAMountOnIt) {
  ASSERT_EQ(Ctl({"share", "create", "/second"}).exitCode, 0);
  const bytes_t second = Client().Mount("/second").value();
  const CBackupFolder backup{{"disk.img", "disk"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  const SFootprint before = SettledFootprint();
  const std::string id = agent.Publish("/second");
  const bytes_t disk = HandleOf("disk.img", second);
  EXPECT_EQ(ContentOf(disk), "disk");
  ASSERT_EQ(Ctl({"share", "delete", "/second"}).exitCode, 0);
  EXPECT_FALSE(Client().Mount("/second"));
  EXPECT_EQ(Client().GetAttr(second), Stale);
  EXPECT_EQ(Client().GetAttr(disk), Stale);
  EXPECT_EQ(Client().Read(disk, 0, 10).status, NoEntry);
  // The mount is still there, and its agent still in use.
  EXPECT_THAT(Locks(), ElementsAre("vm1"));
  Withdraw(id);
  EXPECT_EQ(LinesInLog("Backup mount \"" + id + "\" refers to the unknown NFS share \""), 1U);
  EXPECT_THAT(Locks(), IsEmpty());
  ExpectFootprint(before);
  EXPECT_EQ(Ctl({"mount", "withdraw", id}).exitCode, 0);
}

TEST_P(BackupMountStartTest, AMountThatOutlivesItsShareKeepsTheServiceFromStarting) {
  ASSERT_EQ(Ctl({"share", "create", "/second"}).exitCode, 0);
  const CBackupFolder backup{{"disk.img", "disk"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  const std::string id = agent.Publish("/second");
  ASSERT_EQ(Ctl({"share", "delete", "/second"}).exitCode, 0);
  service_.Kill();
  EXPECT_THAT(FailToStart(), AllOf(HasSubstr("The specified mount folder does not exist."), HasSubstr(AdviceFor(id))));
  ASSERT_EQ(service_.Reg({"delete", "SOFTWARE/KelvO/Kelvo NFS/Dynamic mounts/" + id}).exitCode, 0);
  service_.Start();
  EXPECT_THAT(Locks(), IsEmpty());
}

}  // namespace
