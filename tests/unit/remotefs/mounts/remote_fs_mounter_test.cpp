#include "remotefs/mounts/remote_fs_mounter.h"

#include "mounter_fixture.h"
#include "remotefs/items/remote_fs_folder.h"

namespace test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

TEST_F(MounterTest, LogsAMountLineByLine) {
  cfg->allowedHostAddr = "10.0.0.1";
  const CapturedLog log;
  mounter->Mount(mountUid, cfg);
  auto lines = WithoutThreads(log.Texts("Info"));
  lines.resize(std::min<std::size_t>(lines.size(), 9));
  EXPECT_THAT(
      lines, ElementsAre("{", "    Mount ID: [" + UidText7 + "]", "    VM name: [machine].", "    Comment: [of monday]",
                         "    NFS folder ID: [{00000000-0000-0000-0000-000000000001}]", "    Mount point: [backup]",
                         "    Pipe: [vm1]", "    Allowed ESX host: [10.0.0.1]", "}"))
      << "before anything else";
}

TEST_F(MounterTest, ShowsTheBackupInTheFolder) {
  agent->SetFile("disk", WireBytes("hello"));
  EXPECT_EQ(MountFolder(), InvalidFid) << "no client has been there yet";
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = MountFolder();
  ASSERT_NE(fid, InvalidFid);
  EXPECT_THAT(MirrorPaths(fid), ElementsAre("host", UidText7));
  const auto mirror = boost::dynamic_pointer_cast<CRemoteFsFolder>(tab->GetItemForMount(fid, mountUid));
  ASSERT_TRUE(mirror);
  SFsItemSpec spec;
  mirror->GetItemSpec(spec);
  EXPECT_EQ(spec.path, "");
  EXPECT_EQ(Read(Find(fid, "disk")), "hello");
  EXPECT_EQ(Active(), std::set{mountUid});
  EXPECT_THAT(Inactive(), IsEmpty());
  EXPECT_THAT(Connections(), ElementsAre("machine"));
}

TEST_F(MounterTest, OpensOnePipeForEachMount) {
  mounter->Mount(mountUid, cfg);
  EXPECT_EQ(TheConnector()->GetInvoker()->ThreadCount(), 1U);
  const auto client = TheConnector()->GetClient();
  EXPECT_ANY_THROW(TheConnector()->GetClient());
}

TEST_F(MounterTest, FindsTheFolderInEverySpelling) {
  std::filesystem::create_directories(host / "deep" / "er" / "still");
  for (const char* mountPoint : {"deep/er/still", "\\deep\\er\\still\\", "/deep//er\\still", "DEEP/Er/STILL"}) {
    cfg->mountPoint = mountPoint;
    mounter->Mount(mountUid, cfg);
    const std::uint64_t fid = mounter->ResolveMountRootFid(mountUid);
    EXPECT_THAT(tab->GetItemPath(fid), AllOf(StartsWith("vol/"), HasSubstr("still"))) << mountPoint;
    EXPECT_THAT(MirrorPaths(fid), ElementsAre("host", UidText7)) << mountPoint;
    mounter->Dismount(mountUid);
  }
  cfg->mountPoint = "/";
  mounter->Mount(mountUid, cfg);
  EXPECT_EQ(mounter->ResolveMountRootFid(mountUid), root) << "the share itself";
}

TEST_F(MounterTest, DropsWhatHasGoneFromTheHostOnItsWay) {
  std::filesystem::create_directories(host / "gone" / "below");
  cfg->mountPoint = "gone/below";
  mounter->Mount(mountUid, cfg);
  mounter->Dismount(mountUid);
  EXPECT_NE(tab->LookupChild(root, "gone"), InvalidFid);
  std::filesystem::remove_all(host / "gone");
  EXPECT_ANY_THROW(mounter->Mount(mountUid, cfg));
  EXPECT_EQ(tab->LookupChild(root, "gone"), InvalidFid);
}

TEST_F(MounterTest, TheIdOfNoMountIsRefused) {
  EXPECT_EQ(FailureOf([&] { mounter->Mount(GUID{}, cfg); }),
            "A backup mount cannot have the ID [{00000000-0000-0000-0000-000000000000}].");
}

TEST_F(MounterTest, AMountWithoutAgentChangesNothing) {
  agent.reset();
  EXPECT_EQ(FailureOf([&] { mounter->Mount(mountUid, cfg); }),
            "NFS mount agent is not started or not functional (2).\n"
            "Failed to connect to the FS server. Pipe: [vm1].");
  EXPECT_EQ(MountFolder(), InvalidFid);
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(Inactive(), IsEmpty());
}

TEST_F(MounterTest, AMountWithoutFolderChangesNothing) {
  std::ofstream(host / "file") << "no folder";
  for (const char* mountPoint : {"missing", "backup/missing", "file", "file/below"}) {
    cfg->mountPoint = mountPoint;
    EXPECT_EQ(FailureOf([&] { mounter->Mount(mountUid, cfg); }),
              "The specified mount folder does not exist.\n"
              "Failed to publish backup items. VM: [machine]. Comment: [of monday]. NFS mount point: [" +
                  std::string(mountPoint) + "]. Mount ID: [" + UidText7 + "].");
  }
  cfg->nfsFolderID = MountUid(42);
  cfg->mountPoint = "backup";
  EXPECT_THAT(FailureOf([&] { mounter->Mount(mountUid, cfg); }),
              StartsWith("The specified mount folder does not exist."));
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(Inactive(), IsEmpty());
}

TEST_F(MounterTest, AMountPointLeadsNowhereElse) {
  std::filesystem::create_directories(folder.Path() / "outside");
  std::filesystem::create_directory_symlink(folder.Path() / "outside", host / "link");
  for (const char* mountPoint : {"..", "backup/..", "../outside", "./backup", "link"}) {
    cfg->mountPoint = mountPoint;
    EXPECT_THAT(FailureOf([&] { mounter->Mount(mountUid, cfg); }), HasSubstr("Failed to publish backup items. VM: "))
        << mountPoint;
  }
  EXPECT_THAT(Active(), IsEmpty());
}

TEST_F(MounterTest, AMountThatCannotBeStoredIsNotShown) {
  mounter->Mount(mountUid, cfg);
  mounter->Dismount(mountUid);
  sink->isBroken = true;
  EXPECT_THAT(FailureOf([&] { mounter->Mount(mountUid, cfg); }),
              AllOf(HasSubstr("The registry is broken."), HasSubstr("Failed to publish backup items. VM: [machine].")));
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(MirrorPaths(MountFolder()), ElementsAre("host")) << "nobody could take it away again";
}

TEST_F(MounterTest, NeedsAConfiguration) {
  EXPECT_ANY_THROW(mounter->Mount(mountUid, MountCfg("vm1"))) << "of no share";
}

TEST_F(MounterTest, ADismountTakesTheMountAndItsItemsAway) {
  agent->SetFile("disk", WireBytes("hello"));
  std::ofstream(host / "backup" / "notes") << "of the host";
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = MountFolder();
  const std::uint64_t disk = Find(fid, "disk");
  const std::uint64_t notes = Find(fid, "notes");
  mounter->Dismount(mountUid);
  EXPECT_FALSE(tab->GetItem(disk));
  EXPECT_EQ(tab->LookupChild(fid, "disk"), InvalidFid);
  EXPECT_EQ(MountFolder(), fid) << "the host's folder stays, with its handle";
  EXPECT_THAT(MirrorPaths(fid), ElementsAre("host"));
  EXPECT_EQ(Read(notes), "of the host");
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(Inactive(), IsEmpty());
  EXPECT_THAT(Connections(), IsEmpty());
}

TEST_F(MounterTest, ADismountTakesWholeFoldersOfTheMountAway) {
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = MountFolder();
  const auto connector = TheConnector();
  agent->SetFile("sub//inner", WireBytes("hello"));
  const std::uint64_t sub = tab->AddItem(fid, "sub", boost::make_shared<CRemoteFsFolder>(connector, "sub", mountUid));
  const std::uint64_t inner = Find(sub, "inner");
  EXPECT_EQ(Read(inner), "hello");
  mounter->Dismount(mountUid);
  EXPECT_FALSE(tab->GetItem(sub));
  EXPECT_FALSE(tab->GetItem(inner));
}

TEST_F(MounterTest, ADismountLeavesOtherMountsAlone) {
  FakeMountAgent second("vm2");
  agent->SetFile("disk1", WireBytes("one"));
  second.SetFile("disk2", WireBytes("two"));
  mounter->Mount(MountUid(7), cfg);
  mounter->Mount(MountUid(8), Cfg("vm2", "backup", "second machine"));
  const std::uint64_t fid = MountFolder();
  EXPECT_EQ(MirrorPaths(fid).size(), 3U);
  const std::uint64_t disk1 = Find(fid, "disk1");
  const std::uint64_t disk2 = Find(fid, "disk2");
  EXPECT_THAT(Connections(), ElementsAre("machine", "second machine"));
  mounter->Dismount(MountUid(7));
  EXPECT_FALSE(tab->GetItem(disk1));
  EXPECT_EQ(Read(disk2), "two");
  EXPECT_EQ(Active(), std::set{MountUid(8)});
}

TEST_F(MounterTest, ADismountClosesThePipe) {
  agent->SetFile("disk", WireBytes("hello"));
  mounter->Mount(mountUid, cfg);
  const boost::weak_ptr<CRemoteFsConnector> connector = TheConnector();
  const auto kept = tab->GetItem(Find(MountFolder(), "disk"));
  mounter->Dismount(mountUid);
  ASSERT_FALSE(connector.expired()) << "a client is in the middle of a call";
  EXPECT_FALSE(connector.lock()->IsConnected());
  SFsReadBuffer buffer;
  EXPECT_EQ(FailureOf([&] { boost::dynamic_pointer_cast<IFsFile>(kept)->Read(0, 5, buffer); }),
            "Procedure is cancelled.");
}

TEST_F(MounterTest, AConnectorDiesWithItsLastUser) {
  mounter->Mount(mountUid, cfg);
  const boost::weak_ptr<CRemoteFsConnector> connector = TheConnector();
  mounter->Dismount(mountUid);
  EXPECT_TRUE(connector.expired());
}

TEST_F(MounterTest, ADismountOfAnUnknownMountIsToldAndSucceeds) {
  const CapturedLog log;
  mounter->Dismount(mountUid);
  EXPECT_THAT(log.Texts("Warning"), ElementsAre("Mount configuration \"" + UidText7 + "\" was not found."));
}

TEST_F(MounterTest, ADismountFromAShareThatIsGoneRemovesTheMount) {
  mounter->Mount(mountUid, cfg);
  tab->UnregisterShare(shareUid);
  const CapturedLog log;
  mounter->Dismount(mountUid);
  EXPECT_THAT(log.Texts("Warning"),
              ElementsAre("Backup mount \"" + UidText7 +
                          "\" refers to the unknown NFS share \"{00000000-0000-0000-0000-000000000001}\"."));
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(Inactive(), IsEmpty());
}

TEST_F(MounterTest, ASecondMountUnderTheSameIdentityReplacesTheFirst) {
  std::filesystem::create_directories(host / "other");
  agent->SetFile("disk", WireBytes("first"));
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = MountFolder();
  const std::uint64_t disk = Find(fid, "disk");
  const boost::weak_ptr<CRemoteFsConnector> first = TheConnector();
  FakeMountAgent second("vm2");
  second.SetFile("disk", WireBytes("second"));
  mounter->Mount(mountUid, Cfg("vm2", "other", "renamed"));
  EXPECT_TRUE(first.expired());
  EXPECT_FALSE(tab->GetItem(disk));
  EXPECT_THAT(MirrorPaths(fid), ElementsAre("host"));
  EXPECT_EQ(Read(Find(mounter->ResolveMountRootFid(mountUid), "disk")), "second");
  EXPECT_THAT(Connections(), ElementsAre("renamed"));
}

TEST_F(MounterTest, AReplacementThatFailsLeavesTheMountAsItIs) {
  agent->SetFile("disk", WireBytes("first"));
  mounter->Mount(mountUid, cfg);
  const std::uint64_t disk = Find(MountFolder(), "disk");
  EXPECT_ANY_THROW(mounter->Mount(mountUid, Cfg("nobody", "backup")));
  const FakeMountAgent second("vm2");
  EXPECT_ANY_THROW(mounter->Mount(mountUid, Cfg("vm2", "missing")));
  EXPECT_EQ(Read(disk), "first");
  EXPECT_THAT(Connections(), ElementsAre("machine"));
}

TEST_F(MounterTest, AReplacementThatCannotBeStoredLeavesTheMountAsItIs) {
  std::filesystem::create_directories(host / "other");
  agent->SetFile("disk", WireBytes("first"));
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = MountFolder();
  const std::uint64_t disk = Find(fid, "disk");
  FakeMountAgent second("vm2");
  second.SetFile("disk", WireBytes("second"));
  mounter->Mount(MountUid(8), Cfg("vm2", "other"));
  mounter->Dismount(MountUid(8));
  for (const char* mountPoint : {"backup", "other"}) {
    sink->isBroken = true;
    EXPECT_THAT(FailureOf([&] { mounter->Mount(mountUid, Cfg("vm2", mountPoint, "renamed")); }),
                HasSubstr("The registry is broken."))
        << mountPoint;
    sink->isBroken = false;
    EXPECT_EQ(Find(fid, "disk"), disk) << mountPoint;
    EXPECT_EQ(Read(disk), "first") << mountPoint;
    EXPECT_THAT(Connections(), ElementsAre("machine")) << mountPoint;
    EXPECT_THAT(MirrorPaths(fid), ElementsAre("host", UidText7)) << mountPoint;
  }
  mounter->Mount(mountUid, Cfg("vm2", "backup", "renamed"));
  EXPECT_EQ(Read(Find(fid, "disk")), "second");
  EXPECT_THAT(Connections(), ElementsAre("renamed"));
}

/// Wherever the registry gives out, one of the two is there, whole.
TEST_F(MounterTest, AReplacementThatFailsLateLeavesAMount) {
  std::filesystem::create_directories(host / "other");
  agent->SetFile("disk", WireBytes("first"));
  FakeMountAgent second("vm2");
  second.SetFile("disk", WireBytes("second"));
  for (int writes = 1; writes < 6; ++writes) {
    for (const char* mountPoint : {"backup", "other"}) {
      SCOPED_TRACE(std::string(mountPoint) + ' ' + std::to_string(writes));
      mounter->Mount(mountUid, cfg);
      Find(MountFolder(), "disk");
      sink->writesUntilBroken = writes;
      std::string failure;
      try {
        mounter->Mount(mountUid, Cfg("vm2", mountPoint, "renamed"));
      } catch (const std::exception& thrown) {
        failure = thrown.what();
      }
      sink->writesUntilBroken = 0;
      sink->isBroken = false;
      const bool isNew = Connections() == std::vector<std::string>{"renamed"};
      EXPECT_EQ(Read(Find(mounter->ResolveMountRootFid(mountUid), "disk")), isNew ? "second" : "first") << failure;
      EXPECT_EQ(Connections().size(), 1U) << failure;
      mounter->Dismount(mountUid);
      mounter->Mount(mountUid, cfg);
      mounter->Dismount(mountUid);
    }
  }
}

TEST_F(MounterTest, AReplacementInItsOwnFolderShowsTheNewBackupAlone) {
  agent->SetFile("disk", WireBytes("first"));
  agent->SetFile("old", WireBytes("old"));
  mounter->Mount(mountUid, cfg);
  const std::uint64_t fid = MountFolder();
  const std::uint64_t old = Find(fid, "old");
  const std::uint64_t disk = Find(fid, "disk");
  FakeMountAgent second("vm2");
  second.SetFile("disk", WireBytes("second"));
  mounter->Mount(mountUid, Cfg("vm2", "backup", "renamed"));
  EXPECT_FALSE(tab->GetItem(old));
  EXPECT_FALSE(tab->GetItem(disk));
  EXPECT_EQ(MirrorPaths(fid).size(), 2U);
  EXPECT_EQ(Find(fid, "old"), InvalidFid);
  EXPECT_EQ(Read(Find(fid, "disk")), "second");
}

TEST_F(MounterTest, ResumesMountsInTheOrderOfTheirIdentities) {
  FakeMountAgent second("vm2");
  std::filesystem::create_directories(host / "b");
  agent->SetFile("disk", WireBytes("one"));
  second.SetFile("disk", WireBytes("two"));
  mounter.reset();
  const CapturedLog log;
  mounter = MakeMounter({{MountUid(9), Cfg("vm1", "backup", "nine")}, {MountUid(3), Cfg("vm2", "b", "three")}});
  std::vector<std::string> told;
  for (const std::string& line : log.Texts("Info")) {
    if (line.starts_with("    VM name") || line.starts_with("Resuming") || line.starts_with("Opening"))
      told.push_back(line);
  }
  EXPECT_THAT(told,
              ElementsAre("Resuming backup mounts.", "    VM name: [three].", R"(Opening VFS pipe "\\.\pipe\vm2-0".)",
                          "    VM name: [nine].", R"(Opening VFS pipe "\\.\pipe\vm1-0".)"));
  EXPECT_THAT(Connections(), ElementsAre("three", "nine"));
  EXPECT_EQ(Read(Find(mounter->ResolveMountRootFid(MountUid(9)), "disk")), "one");
  EXPECT_EQ(Read(Find(mounter->ResolveMountRootFid(MountUid(3)), "disk")), "two");
}

TEST_F(MounterTest, ResumesAMountWhoseAgentIsAway) {
  agent.reset();
  const CapturedLog log;
  mounter = MakeMounter({{mountUid, cfg}});
  EXPECT_EQ(Inactive(), std::set{mountUid});
  EXPECT_THAT(Active(), IsEmpty());
  EXPECT_THAT(Connections(), IsEmpty());
  EXPECT_EQ(log.Texts("Error").front(), "") << "the failure is told under no title";
  EXPECT_THAT(log.Texts("Error"), testing::Contains("NFS mount agent is not started or not functional (2)."));
  EXPECT_THAT(MirrorPaths(MountFolder()), ElementsAre("host", UidText7));
}

TEST_F(MounterTest, CannotResumeAMountWithoutItsFolder) {
  const FakeMountAgent second("vm2");
  EXPECT_EQ(FailureOf([&] {
              MakeMounter({{MountUid(3), cfg}, {mountUid, Cfg("vm2", "missing")}});
            }),
            "The specified mount folder does not exist.\n"
            "Failed to publish backup items. VM: [machine]. Comment: [of monday]. NFS mount point: [missing]. "
            "Mount ID: [" +
                UidText7 + "].");
}

TEST_F(MounterTest, ResolvesAMountToItsFolder) {
  mounter->Mount(mountUid, cfg);
  const CapturedLog log;
  EXPECT_EQ(mounter->ResolveMountRootFid(mountUid), MountFolder());
  EXPECT_THAT(log.Texts("Info"),
              ElementsAre("Found root of the RFS: [{00000000-0000-0000-0000-000000000001}:backup]."));
}

TEST_F(MounterTest, TellsWhyAMountIsNotResolved) {
  const std::string wrapper = "\nFailed to resolve RFS mount UID to FID. Mount UID: [" + UidText7 + "].";
  const auto failure = [&] { return FailureOf([&] { mounter->ResolveMountRootFid(mountUid); }); };
  EXPECT_EQ(failure(), "The specified RFS mount is not registered in the mounts table." + wrapper);
  cfg->mountPoint = "/backup";
  mounter->Mount(mountUid, cfg);
  tab->RemoveItem(MountFolder());
  EXPECT_EQ(failure(),
            "NFS root of the mounted backup items ([{00000000-0000-0000-0000-000000000001}]:[/backup]) is not "
            "registered in the NFS items catalog." +
                wrapper)
      << "the brackets are those of the line around it";
}

TEST_F(MounterTest, TellsThatTheShareOfAMountIsGone) {
  mounter->Mount(mountUid, cfg);
  tab->UnregisterShare(shareUid);
  EXPECT_EQ(FailureOf([&] { mounter->ResolveMountRootFid(mountUid); }),
            "NFS share with ID [{00000000-0000-0000-0000-000000000001}] does not exists.\n"
            "Failed to resolve RFS mount UID to FID. Mount UID: [" +
                UidText7 + "].");
}

TEST_F(MounterTest, MountsAreActiveWhileTheirConnectorSaysSo) {
  const FakeMountAgent second("vm2");
  mounter->Mount(MountUid(7), cfg);
  mounter->Mount(MountUid(8), Cfg("vm2", "backup", "eight"));
  CRemoteFsMounter::connectors_t mounts;
  mounter->GetActiveMounts(mounts);
  Lose(*mounts.at(MountUid(7)));
  EXPECT_EQ(Active(), std::set{MountUid(8)});
  EXPECT_EQ(Inactive(), std::set{MountUid(7)});
  EXPECT_THAT(Connections(), ElementsAre("eight"));
}

TEST_F(MounterTest, EachMountIsOneConnection) {
  const FakeMountAgent second("vm2");
  mounter->Mount(MountUid(7), cfg);
  mounter->Mount(MountUid(8), Cfg("vm2", "backup"));
  EXPECT_THAT(Connections(), ElementsAre("machine", "machine"));
}

}  // namespace
}  // namespace test
