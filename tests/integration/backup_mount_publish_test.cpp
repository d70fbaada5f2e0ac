// Backups in folders of shares: what clients see of them, how they come and how they go.
#include <filesystem>

#include "integration/support/backup_fixture.h"

namespace {

using namespace test;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
namespace fs = std::filesystem;

constexpr std::uint32_t RegularFile = 1;
constexpr std::uint32_t FolderType = 2;

std::string Pattern(std::size_t length) {
  std::string data(length, '\0');
  unsigned seed = 11;
  for (char& byte : data) {
    seed = seed * 1664525U + 1013904223U;
    byte = static_cast<char>(seed >> 24);
  }
  return data;
}

class BackupMountPublishTest : public CBackupTest {};
KELVO_WIRE_SUITE(BackupMountPublishTest);

TEST_P(BackupMountPublishTest, ThreeBackupsAndHostFilesAreOneFolder) {
  const bytes_t folder = MakeFolder("machines/web");
  WriteFile(HostPath("machines/web/notes.txt"), "host");
  const CBackupFolder first{{"disk.img", Pattern(200000)}, {"nvram", ""}};
  const CBackupFolder second{{"data.img", "second"}};
  const CBackupFolder third{{"swap.img", "third"}};
  CMountAgent firstAgent(service_, "vm1", first.Path());
  CMountAgent secondAgent(service_, "vm2", second.Path());
  CMountAgent thirdAgent(service_, "vm3", third.Path());
  for (CMountAgent* agent : {&firstAgent, &secondAgent, &thirdAgent})
    ASSERT_NO_FATAL_FAILURE(agent->Start());
  const std::string id = Publish("vm1", "machines/web");
  Publish("vm2", "/machines\\web/");
  const std::string thirdId = Publish("vm3", "machines/web");

  EXPECT_THAT(NamesIn(folder), ElementsAre("data.img", "disk.img", "notes.txt", "nvram", "swap.img"));
  EXPECT_THAT(Locks(), ElementsAre("vm1", "vm2", "vm3"));
  for (const SEntry& entry : Client().List(folder)) {
    bytes_t handle;
    SAttributes found;
    ASSERT_EQ(Client().Lookup(folder, entry.name, &handle, &found), Ok);
    EXPECT_EQ(handle, entry.handle) << entry.name;
    EXPECT_EQ(found.fileid, entry.fileid) << entry.name;
    const SAttributes asked = AttributesOf(handle);
    EXPECT_EQ(asked.type, RegularFile);
    EXPECT_EQ(asked.size, found.size) << entry.name;
    EXPECT_EQ(asked.fileid, entry.fileid) << entry.name;
  }
  EXPECT_EQ(AttributesOf(HandleOf("disk.img", folder)).size, 200000U);
  EXPECT_EQ(AttributesOf(HandleOf("nvram", folder)).size, 0U);
  EXPECT_EQ(AttributesOf(folder).type, FolderType);

  const bytes_t swap = HandleOf("swap.img", folder);
  Withdraw(thirdId);
  EXPECT_THAT(NamesIn(folder), ElementsAre("data.img", "disk.img", "notes.txt", "nvram"));
  EXPECT_EQ(Client().GetAttr(swap), Stale);
  EXPECT_EQ(Client().Read(swap, 0, 10).status, NoEntry);
  EXPECT_EQ(Client().Lookup(folder, "swap.img"), NoEntry);
  EXPECT_EQ(ContentOf(HandleOf("data.img", folder)), "second");
  Withdraw(id);
  EXPECT_THAT(NamesIn(folder), ElementsAre("data.img", "notes.txt"));
  EXPECT_EQ(ContentOf(HandleOf("notes.txt", folder)), "host");
  EXPECT_THAT(Locks(), ElementsAre("vm2"));
}

TEST_P(BackupMountPublishTest, ReadsAndWritesAreThoseOfTheAgent) {
  const std::string content = Pattern(150000);
  const CBackupFolder backup{{"disk.img", content}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const bytes_t disk = HandleOf("disk.img");

  SReadResult read = Client().Read(disk, 0, 65536);
  EXPECT_EQ(read.status, Ok);
  EXPECT_FALSE(read.eof);
  EXPECT_TRUE(read.data == content.substr(0, 65536));
  read = Client().Read(disk, 131072, 65536);
  EXPECT_TRUE(read.eof);
  EXPECT_TRUE(read.data == content.substr(131072));
  read = Client().Read(disk, 150000 - 4096, 4096);
  EXPECT_EQ(read.data.size(), 4096U);
  EXPECT_FALSE(read.eof);
  read = Client().Read(disk, 150000, 1);
  EXPECT_EQ(read.status, Ok);
  EXPECT_TRUE(read.eof);
  EXPECT_THAT(read.data, IsEmpty());
  // Longer than the buffer for a reply.
  read = Client().Read(disk, 1000, 140000);
  EXPECT_TRUE(read.data == content.substr(1000, 140000));

  // Whatever a client asks for, CNfsClient::Write insists on FILE_SYNC.
  for (const std::uint32_t stable : {0U, 1U, 2U})
    EXPECT_EQ(Client().Write(disk, 100 * stable, "written", stable), Ok);
  EXPECT_EQ(Client().Write(disk, 5000, Pattern(100000)), Ok);
  EXPECT_EQ(Client().Write(disk, 0, ""), Ok);
  EXPECT_EQ(Client().Read(disk, 200, 7).data, "written");
  EXPECT_TRUE(Client().Read(disk, 5000, 100000).data == Pattern(100000));
  // Beyond the end it grows, with zeros in between.
  EXPECT_EQ(Client().Write(disk, 160000, "end"), Ok);
  EXPECT_EQ(AttributesOf(disk).size, 160003U);
  EXPECT_EQ(Client().Read(disk, 159998, 10).data, std::string("\0\0end", 5));
  EXPECT_TRUE(ReadFile(backup.File("disk.img")) == content);
  EXPECT_FALSE(fs::exists(HostPath("disk.img")));
}

TEST_P(BackupMountPublishTest, EntriesOfABackupCannotBeMadeResizedOrRemoved) {
  const CBackupFolder backup{{"disk.img", "content"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const bytes_t disk = HandleOf("disk.img");
  SSetAttributes shorter;
  shorter.size = 1;
  EXPECT_EQ(Client().SetAttr(disk, shorter), ServerFault);
  // Permissions and times are the service's own; the agent hears of none.
  const SAttributes before = AttributesOf(disk);
  SSetAttributes times;
  times.mode = 0400;
  times.mtimeHow = 2;
  times.mtime[0] = 1000000000;
  EXPECT_EQ(Client().SetAttr(disk, times), Ok);
  EXPECT_NE(AttributesOf(disk).mtime[0], before.mtime[0]);
  EXPECT_EQ(AttributesOf(disk).size, before.size);
  EXPECT_EQ(ReadFile(backup.File("disk.img")), "content");
  // The folder on the disk has no such file, and what it has not is removed with success.
  EXPECT_EQ(Client().Remove(root_, "disk.img"), Ok);
  EXPECT_NE(Client().Rename(root_, "disk.img", root_, "other.img"), Ok);
  EXPECT_THAT(NamesIn(root_), ElementsAre("disk.img"));
  EXPECT_EQ(ContentOf(HandleOf("disk.img")), "content");
  EXPECT_EQ(ReadFile(backup.File("disk.img")), "content");
}

TEST_P(BackupMountPublishTest, OfTwoFilesWithOneNameTheOneThatCameFirstIsSeen) {
  WriteFile(HostPath("host.txt"), "of the host");
  const CBackupFolder first{{"host.txt", "hidden"}, {"disk.img", "of the first"}};
  const CBackupFolder second{{"DISK.img", "of the second"}, {"more.img", "more"}};
  CMountAgent firstAgent(service_, "vm1", first.Path());
  CMountAgent secondAgent(service_, "vm2", second.Path());
  ASSERT_NO_FATAL_FAILURE(firstAgent.Start());
  ASSERT_NO_FATAL_FAILURE(secondAgent.Start());
  const std::string id = Publish("vm1");
  Publish("vm2");
  EXPECT_THAT(NamesIn(root_), testing::SizeIs(3));
  EXPECT_EQ(ContentOf(HandleOf("host.txt")), "of the host");
  const bytes_t disk = HandleOf("disk.img");
  EXPECT_EQ(ContentOf(disk), "of the first");
  EXPECT_EQ(HandleOf("DISK.IMG"), disk);
  Withdraw(id);
  EXPECT_EQ(Client().GetAttr(disk), Stale);
  EXPECT_THAT(NamesIn(root_), ElementsAre("DISK.img", "host.txt", "more.img"));
  EXPECT_EQ(ContentOf(HandleOf("DISK.img")), "of the second");
  EXPECT_EQ(ContentOf(HandleOf("host.txt")), "of the host");
}

TEST_P(BackupMountPublishTest, AMountForOneHostIsHiddenFromTheOthers) {
  const CBackupFolder backup{{"disk.img", "secret"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  WriteFile(HostPath("host.txt"), "host");
  ASSERT_EQ(Ctl({"host", "add", "127.0.0.2"}).exitCode, 0);
  Publish("vm1", "/", {"--allow", "127.0.0.2"});

  EXPECT_THAT(NamesIn(root_), ElementsAre("host.txt"));
  EXPECT_EQ(Client().Lookup(root_, "disk.img"), AccessDenied);
  CNfsClient other(2049, 1058, "127.0.0.2");
  EXPECT_EQ(other.List(root_).size(), 2U);
  bytes_t disk;
  ASSERT_EQ(other.Lookup(root_, "disk.img", &disk), Ok);
  EXPECT_EQ(other.GetAttr(disk), Ok);
  EXPECT_EQ(other.Read(disk, 0, 10).data, "secret");
  EXPECT_EQ(other.Write(disk, 0, "SE"), Ok);
  EXPECT_EQ(Client().GetAttr(disk), AccessDenied);
  EXPECT_EQ(Client().Access(disk, 1), AccessDenied);
  EXPECT_EQ(Client().SetAttr(disk, {}), AccessDenied);

  // The list is kept with the mount.
  service_.Kill();
  service_.Start();
  EXPECT_EQ(NewClient().GetAttr(disk), AccessDenied);
  CNfsClient again(2049, 1058, "127.0.0.2");
  EXPECT_EQ(again.Read(disk, 0, 10).data, "SEcret");
}

TEST_P(BackupMountPublishTest, PublishedAgainUnderTheSameIdItReplacesWhatItWas) {
  const bytes_t before = MakeFolder("before");
  const bytes_t after = MakeFolder("after");
  const CBackupFolder first{{"disk.img", "first"}};
  const CBackupFolder second{{"disk.img", "second"}};
  CMountAgent firstAgent(service_, "vm1", first.Path());
  CMountAgent secondAgent(service_, "vm2", second.Path());
  ASSERT_NO_FATAL_FAILURE(firstAgent.Start());
  ASSERT_NO_FATAL_FAILURE(secondAgent.Start());
  const std::string id = Publish("vm1", "before");
  const bytes_t old = HandleOf("disk.img", before);

  EXPECT_EQ(Publish("vm2", "after", {"--id", id}), id);
  EXPECT_THAT(NamesIn(before), IsEmpty());
  EXPECT_EQ(Client().GetAttr(old), Stale);
  const bytes_t disk = HandleOf("disk.img", after);
  EXPECT_EQ(ContentOf(disk), "second");
  EXPECT_THAT(Locks(), ElementsAre("vm2"));

  // A failure changes nothing.
  EXPECT_THAT(Refused("nobody", "before", {"--id", id}), HasSubstr("NFS mount agent is not started"));
  EXPECT_THAT(Refused("vm1", "not/there", {"--id", id}), HasSubstr("The specified mount folder does not exist."));
  EXPECT_EQ(ContentOf(disk), "second");
  service_.Kill();
  service_.Start();
  EXPECT_EQ(NewClient().Read(disk, 0, 10).data, "second");
  EXPECT_THAT(NamesIn(before), IsEmpty());
}

TEST_P(BackupMountPublishTest, PublishSaysWhatIsMissingAndLeavesNothingBehind) {
  const CBackupFolder backup{{"disk.img", "x"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  WriteFile(HostPath("file"), "x");
  NamesIn(root_);
  const SFootprint before = SettledFootprint();
  EXPECT_THAT(Refused("vm1"),
              AllOf(StartsWith("kelvo-nfsctl: NFS mount agent is not started or not functional (2).\n"),
                    HasSubstr("\n  Failed to connect to the FS server. Pipe: [vm1].\n"),
                    HasSubstr("\n  Failed to mount backup items. VM name: [vm1]. Comment: []. Mount point: [/].\n"),
                    HasSubstr("\n  RPC: Failed MountBackup.\n")));
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  for (const char* folder : {"not/there", "file"}) {
    EXPECT_THAT(Refused("vm1", folder), AllOf(StartsWith("kelvo-nfsctl: The specified mount folder does not exist.\n"),
                                              HasSubstr("\n  Failed to publish backup items. VM: [vm1].")));
  }
  EXPECT_EQ(
      Ctl({"mount", "publish", "{11111111-2222-3333-4444-555555555555}", "/", "--vm", "v", "--pipe", "vm1"}).exitCode,
      1);
  EXPECT_THAT(Locks(), IsEmpty());
  EXPECT_THAT(NamesIn(root_), ElementsAre("file"));
  EXPECT_THAT(service_.Reg({"export", "SOFTWARE/KelvO/Kelvo NFS/Dynamic mounts"}).out, testing::Not(HasSubstr("vm1")));
  // A mount that is not known is withdrawn with a warning.
  EXPECT_EQ(Ctl({"mount", "withdraw", "{99999999-2222-3333-4444-555555555555}"}).exitCode, 0);
  EXPECT_EQ(LinesInLog("Mount configuration \"{99999999-2222-3333-4444-555555555555}\" was not found."), 1U);
  NewClient();
  ExpectFootprint(before);
}

TEST_P(BackupMountPublishTest, SettingsCannotBeChangedWhileAMachineIsInUse) {
  const CBackupFolder backup{{"disk.img", "x"}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  const std::string id = Publish("vm1");
  const SResult refused = Ctl({"params", "set", "--nfs-port", "2050"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.err, HasSubstr("Failed to reconfigure NFS service: there is at least 1 active connection."));
  Withdraw(id);
  EXPECT_EQ(Ctl({"params", "set", "--nfs-port", "2049"}).exitCode, 0);
  EXPECT_THAT(Refused("vm1"), HasSubstr("Virtual file system is locked."));
}

TEST_P(BackupMountPublishTest, RealClientsReadAndWriteAPublishedDisk) {
  const CBackupFolder backup{{"disk.img", Pattern(3 << 20)}};
  CMountAgent agent(service_, "vm1", backup.Path());
  ASSERT_NO_FATAL_FAILURE(agent.Start());
  Publish("vm1");
  const std::string url = "nfs://127.0.0.1/share";
  const SResult listing = RunProgram({"nfs-ls", url});
  EXPECT_THAT(listing.out, AllOf(HasSubstr(" disk.img\n"), HasSubstr(" 3145728 ")));
  const SResult cat = RunProgram({"nfs-cat", url + "/disk.img"});
  EXPECT_EQ(cat.exitCode, 0) << cat.err;
  EXPECT_TRUE(cat.out == Pattern(3 << 20));
  CTempFolder folder;
  WriteFile(folder.Path() + "/new", Pattern(1 << 20) + std::string(2 << 20, 'n'));
  const bytes_t disk = HandleOf("disk.img");
  ASSERT_EQ(Client().Write(disk, 1 << 20, std::string(1 << 20, 'n')), Ok);
  ASSERT_EQ(Client().Write(disk, 2 << 20, std::string(1 << 20, 'n')), Ok);
  const SResult copy = RunProgram({"nfs-cp", url + "/disk.img", folder.Path() + "/copy"});
  EXPECT_EQ(copy.exitCode, 0) << copy.err << copy.out;
  EXPECT_TRUE(ReadFile(folder.Path() + "/copy") == ReadFile(folder.Path() + "/new"));
  EXPECT_TRUE(ReadFile(backup.File("disk.img")) == Pattern(3 << 20));
}

}  // namespace
