// What clients meet while a mount's agent is away, and what is there when it is back. The health check is the real one:
// it comes every half minute, so what waits for it stands in few tests.
#include <filesystem>

#include "integration/support/backup_fixture.h"

namespace {

using namespace test;
using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
namespace fs = std::filesystem;

constexpr std::uint32_t IoError = 5;

class BackupMountLossTest : public CBackupTest {
 protected:
  /// Waits until the health check has brought a file back. Asked by a short listing of what is in use, which costs
  /// no call on the mount.
  void WaitForLocks(const std::set<std::string>& names) {
    EXPECT_TRUE(WaitUntil([&] { return Locks() == names; }, ReconnectLimit)) << testing::PrintToString(Locks());
  }
};
KELVO_WIRE_SUITE(BackupMountLossTest);

/// What is the same in both servers runs in one.
class BackupMountLastingLossTest : public BackupMountLossTest {};
INSTANTIATE_TEST_SUITE_P(Server, BackupMountLastingLossTest, testing::Values(test::AsyncServer), test::ServerName);

TEST_P(BackupMountLossTest, AgentsThatDieAndComeBackKeepTheHandlesOfTheirFiles) {
  const CBackupFolder same{{"disk.img", "same disk"}, {"swap.img", "same swap"}};
  const CBackupFolder fewer{{"disk.img", "fewer disk"}, {"swap.img", "fewer swap"}};
  const CBackupFolder unseen{{"disk.img", "unseen disk"}};
  CMountAgent sameAgent(service_, "same", same.Path());
  CMountAgent fewerAgent(service_, "fewer", fewer.Path());
  CMountAgent unseenAgent(service_, "unseen", unseen.Path());
  std::map<std::string, bytes_t> folders;
  for (CMountAgent* agent : {&sameAgent, &fewerAgent, &unseenAgent}) {
    ASSERT_NO_FATAL_FAILURE(agent->Start());
    folders[agent->Pipe()] = MakeFolder(agent->Pipe());
    Publish(agent->Pipe(), agent->Pipe());
  }
  const bytes_t sameDisk = HandleOf("disk.img", folders["same"]);
  const bytes_t sameSwap = HandleOf("swap.img", folders["same"]);
  const bytes_t fewerDisk = HandleOf("disk.img", folders["fewer"]);
  const bytes_t fewerSwap = HandleOf("swap.img", folders["fewer"]);
  const bytes_t unseenDisk = HandleOf("disk.img", folders["unseen"]);
  ASSERT_EQ(Client().Write(sameDisk, 0, "SAME"), Ok);

  sameAgent.Kill();
  fewerAgent.Kill();
  unseenAgent.Kill();
  // The call that finds out waits as long as for an answer, and fails.
  CReader first(sameDisk, 10);
  EXPECT_EQ(first.Wait().status, ServerFault);
  EXPECT_THAT(first.Took(), AllOf(Ge(1500ms), Le(8s)));
  EXPECT_EQ(Client().Write(fewerDisk, 0, "lost"), ServerFault);
  EXPECT_EQ(Locks(), (std::set<std::string>{"unseen"}));
  // The folder is as it was, as far as that is known.
  EXPECT_THAT(NamesIn(folders["same"]), ElementsAre("disk.img", "swap.img"));

  // One that is back before anybody has noticed is a new one nevertheless.
  ASSERT_NO_FATAL_FAILURE(unseenAgent.Start());
  fs::remove(fewer.File("swap.img"));
  ASSERT_NO_FATAL_FAILURE(fewerAgent.Start());
  ASSERT_NO_FATAL_FAILURE(sameAgent.Start());
  EXPECT_EQ(Client().Read(unseenDisk, 0, 20).status, ServerFault);
  WaitForLocks({"fewer", "same", "unseen"});

  EXPECT_EQ(ContentOf(sameDisk), "SAME disk");
  EXPECT_EQ(ContentOf(sameSwap), "same swap");
  EXPECT_EQ(ContentOf(unseenDisk), "unseen disk");
  EXPECT_EQ(Client().Write(sameDisk, 4, "-"), Ok);
  EXPECT_EQ(ContentOf(sameDisk), "SAME-disk");
  EXPECT_EQ(HandleOf("disk.img", folders["same"]), sameDisk);
  // What the agent has no more leaves the tree; what was next to it comes back.
  EXPECT_EQ(ContentOf(fewerDisk), "fewer disk");
  EXPECT_EQ(Client().GetAttr(fewerSwap), Stale);
  EXPECT_THAT(NamesIn(folders["fewer"]), ElementsAre("disk.img"));
  EXPECT_EQ(LinesInLog("Items were reconnected."), 3U);
}

TEST_P(BackupMountLossTest, BothKilledAndTheAgentAbsentAtTheStart) {
  const bytes_t folder = MakeFolder("web");
  WriteFile(HostPath("web/notes.txt"), "host");
  const CBackupFolder backup{{"disk.img", std::string(100000, 'd')}, {"swap.img", "swap"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1", "web");
  const bytes_t disk = HandleOf("disk.img", folder);
  const bytes_t swap = HandleOf("swap.img", folder);
  ASSERT_EQ(Client().Write(disk, 0, "written"), Ok);

  // Twice: what is remembered is remembered of what was remembered, too.
  for (int round = 0; round < 2; ++round) {
    service_.Kill();
    agent.Kill();
    service_.Start();
    NewClient();
    EXPECT_EQ(AttributesOf(disk).size, 100000U);
    EXPECT_EQ(AttributesOf(swap).size, 4U);
    EXPECT_EQ(AttributesOf(disk).type, 1U);
    // Nobody waits for an agent that was never there.
    CReader reader(disk, 10);
    EXPECT_EQ(reader.Wait().status, IoError);
    EXPECT_THAT(reader.Took(), Le(1500ms));
    EXPECT_EQ(Client().Write(disk, 0, "lost"), IoError);
    EXPECT_THAT(NamesIn(folder), ElementsAre("disk.img", "notes.txt", "swap.img"));
    EXPECT_EQ(HandleOf("disk.img", folder), disk);
    EXPECT_EQ(ContentOf(HandleOf("notes.txt", folder)), "host");
    EXPECT_THAT(Locks(), IsEmpty());
  }
  fs::remove(backup.File("swap.img"));
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  EXPECT_TRUE(WaitUntil([&] { return Locks().contains("vm1"); }, ReconnectLimit));
  EXPECT_EQ(ContentOf(disk, 10), "writtenddd");
  EXPECT_EQ(Client().Write(disk, 0, "again"), Ok);
  EXPECT_TRUE(WaitUntil([&] { return Client().GetAttr(swap) == Stale; }));
  EXPECT_THAT(NamesIn(folder), ElementsAre("disk.img", "notes.txt"));
  EXPECT_EQ(HandleOf("disk.img", folder), disk);
}

TEST_P(BackupMountLastingLossTest, AMountThatStaysLostIsToldOfOnceAndCanBeWithdrawn) {
  const CBackupFolder backup{{"disk.img", "disk"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  MakeFolder("web");
  const std::string id = Publish("vm1", "web");
  const bytes_t disk = HandleOf("disk.img", HandleOf("web"));
  agent.Kill();
  EXPECT_EQ(Client().Read(disk, 0, 10).status, ServerFault);
  // A second one waits for the client that is lost, or for the health check to give it up.
  CReader second(disk, 10);
  EXPECT_EQ(second.Wait().status, IoError);
  EXPECT_THAT(second.Took(), Le(22s));
  const std::string line =
      "[Mount] Failed to re-connect mount agent. VM: \"vm1\". Mount ID: \"" + id + "\".  Pipe: \"vm1\".";
  EXPECT_TRUE(WaitUntil([&] { return LinesInLog(line) == 1; }, ReconnectLimit));
  // From then on calls fail at once.
  CReader third(disk, 10);
  EXPECT_EQ(third.Wait().status, IoError);
  EXPECT_THAT(third.Took(), Le(1500ms));
  EXPECT_EQ(AttributesOf(disk).size, 4U);
  Withdraw(id);
  EXPECT_EQ(Client().GetAttr(disk), Stale);
  EXPECT_THAT(NamesIn(HandleOf("web")), IsEmpty());
}

}  // namespace
