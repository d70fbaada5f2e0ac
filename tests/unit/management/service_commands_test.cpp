// The service as a whole: the table of commands, locks, log, version, settings.
#include <filesystem>
#include <memory>
#include <set>

#include "config/nfs_share_cfg.h"
#include "config/reg_config.h"
#include "config/reg_config_ports.h"
#include "config/reg_config_root_folder.h"
#include "foundation/log_setup.h"
#include "management_fixture.h"
#include "platform/process.h"
#include "support/fake_mount_agent.h"
#include "vfs/items/fs_item.h"

namespace test {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr char RpcKey[] = R"(SOFTWARE\Kelvo\Kelvo NFS)";

class ServiceCommands : public ManagementFixture {
 protected:
  /// A mount whose agent runs for as long as the test.
  void Mount(const std::string& vmName) {
    const std::string pipe = "vm" + std::to_string(agents_.size());
    agents_.push_back(std::make_unique<FakeMountAgent>(pipe));
    const auto cfg = boost::make_shared<CBackupMountCfg>();
    cfg->nfsFolderID = *platform::GuidFromText(NewShare("mount" + pipe));
    cfg->vmName = vmName;
    cfg->pipe = pipe;
    Fs().MountBackupItems(platform::NewGuid(), cfg);
  }
  bool IsLocked() {
    try {
      Fs().GetShareId("none");
    } catch (const std::exception& failure) {
      return std::string(failure.what()) == "Virtual file system is locked.";
    }
    return false;
  }
  arguments_t Settings(const std::string& rootFolder, const std::string& rpcPort = "7000",
                       const std::string& mountPort = "1100", const std::string& nfsPort = "2100") {
    return {{"rootFolder", rootFolder}, {"rpcPort", rpcPort}, {"mountPort", mountPort}, {"nfsPort", nfsPort}};
  }

  std::vector<std::unique_ptr<FakeMountAgent>> agents_;
};

TEST_F(ServiceCommands, EighteenStandInTheirOrder) {
  std::vector<std::string> names;
  for (const SNfsCommand& command : CNfsInvokeDispatcher::Commands())
    names.emplace_back(command.name);
  EXPECT_THAT(names, ElementsAre("EnumLocks", "GetLogFolder", "TestCompatible", "CreateShare", "LookupShare",
                                 "GetShareConfig", "DeleteShare", "MountBackup", "DismountBackup", "CreateFolder",
                                 "DeleteFolder", "GetParams", "Reconfigure", "AddEsxHostAddr", "DeleteEsxHostAddr",
                                 "SetNfsDatastoreSize", "GetNfsDatastoreSize", "ResetNfsDatastoreSize"));
}

TEST_F(ServiceCommands, NamesAreExact) {
  for (const char* name : {"getparams", "GetParams ", "", "SetNFSDatastoreSize", "Get"})
    EXPECT_THAT(Fail(name), ElementsAre("Unknown command: '" + std::string(name) + "'."));
  CNfsInvokeDispatcher dispatcher;
  EXPECT_FALSE(InvokeCall(
                   dispatcher, [] {}, std::u16string(u"GetParams\0x", 11), u"<InputArguments/>")
                   .result.success)
      << "a zero character does not end a name";
}

TEST_F(ServiceCommands, WithoutMountsThereAreNoLocks) {
  NewShare("vol");
  EXPECT_EQ(Run("EnumLocks"), "<OutputArguments><locks /></OutputArguments>");
  EXPECT_TRUE(HasTrimmed("RPC: EnumLocks"));
  EXPECT_TRUE(HasTrimmed("Enumerating service locks."));
}

TEST_F(ServiceCommands, LocksStandInTheOrderOfTheirNames) {
  Mount("zeta");
  Mount("Ümlaut &amp;");
  Mount("alpha");
  EXPECT_EQ(Run("EnumLocks"),
            "<OutputArguments><locks><item BackupConsole=\"alpha\" JobName=\"\" />"
            "<item BackupConsole=\"zeta\" JobName=\"\" />"
            "<item BackupConsole=\"Ümlaut &amp;amp;\" JobName=\"\" /></locks></OutputArguments>");
}

TEST_F(ServiceCommands, ALockThatCannotBeWrittenIsTold) {
  EXPECT_THROW(Mount("\xFF"), exc::exc_base_t) << "the registry has no such text; the mount is there";
  EXPECT_EQ(Fail("EnumLocks").back(), "Failed to serialize list of jobs.") << "nothing is chained over it";
  EXPECT_EQ(CountTrimmed("RPC: EnumLocks Failed."), 1U);
}

TEST_F(ServiceCommands, AMachineWhoseAgentIsLostHoldsNoLock) {
  Mount("alpha");
  Mount("beta");
  agents_.front()->SetScript([](const AgentRequest&) { return AgentReply::Silence(); });
  std::vector<boost::shared_ptr<IFsFolder>> mirrors;
  Fs().ItemsTab()->GetFolderMirrors(Fs().ItemsTab()->GetShareFidByAlias("mountvm0"), mirrors);
  SFsEnumeration enumeration;
  mirrors.back()->Enumerate(enumeration);
  EXPECT_TRUE(enumeration.unavailable);
  EXPECT_EQ(Run("EnumLocks"),
            "<OutputArguments><locks><item BackupConsole=\"beta\" JobName=\"\" /></locks></OutputArguments>");
}

TEST_F(ServiceCommands, TheLogsFolderIsToldWhileTheLogIsOpen) {
  logging::TheLog().SetReceiver({});
  EXPECT_THAT(Fail("GetLogFolder"), ElementsAre("Value of the log path is unavailable: log is not initialized"));
  logging::TheLog().SetReceiver(logging::OpenFirstFree({folder / "Some.log"}));
  EXPECT_EQ(Run("GetLogFolder"), Output({{"LogFolder", folder.Path().string()}}));
  logging::TheLog().SetReceiver({});
}

TEST_F(ServiceCommands, VersionsAreCompared) {
  const std::string own = logging::ModuleVersion();
  EXPECT_EQ(Run("TestCompatible", {{"backupConsoleVersion", own}}), Output({{"isCompatible", "true"}}));
  EXPECT_TRUE(HasTrimmed("Test compatible."));
  EXPECT_TRUE(HasTrimmed("Checking compatibility with console version:'" + own + "'. Module path: '" +
                         platform::ExecutablePath() + "'."));
  EXPECT_TRUE(HasTrimmed("Backup console is 'compatible' with module version: '" + own + "'."));
  EXPECT_EQ(Run("TestCompatible", {{"backupConsoleVersion", "0.9.9.9"}}), Output({{"isCompatible", "false"}}));
  EXPECT_TRUE(HasTrimmed("Backup console is 'incompatible' with module version: '" + own + "'."));
  EXPECT_EQ(CountTrimmed("Test compatible. Failed."), 0U);
  EXPECT_THAT(Fail("TestCompatible", {{"backupConsoleVersion", "1.2.3"}}),
              ElementsAre("Failed to parse version string '1.2.3'."));
  EXPECT_EQ(CountTrimmed("Test compatible. Failed."), 1U);
  EXPECT_THAT(Fail("TestCompatible"),
              ElementsAre("Value of the argument 'backupConsoleVersion' is not defined.",
                          "Failed to retrieve value of the unicode attribute 'backupConsoleVersion'."));
}

TEST_F(ServiceCommands, SettingsAreThoseStored) {
  EXPECT_EQ(Run("GetParams"),
            Output({{"rootFolder", Local()}, {"rpcPort", "6161"}, {"mountPort", "1058"}, {"nfsPort", "2049"}}));
  Put(RpcKey, "Port", 7000U);
  Put(Root, "MountPort", 1100U);
  Put(Root, "NfsPort", 2100U);
  EXPECT_EQ(context->GetPorts()->GetMountPort(), 1058) << "what the service uses stays";
  EXPECT_EQ(Run("GetParams"),
            Output({{"rootFolder", Local()}, {"rpcPort", "7000"}, {"mountPort", "1100"}, {"nfsPort", "2100"}}));
}

TEST_F(ServiceCommands, SettingsThatCannotBeReadAreTold) {
  registry.Fail("GetValue", 1009);
  EXPECT_EQ(Fail("GetParams").back(), "RPC: Failed GetParams.");
}

TEST_F(ServiceCommands, NewSettingsAreStoredAndLockTheFileSystem) {
  EXPECT_EQ(Run("Reconfigure", Settings(" \t" + (folder / "new") + "&#10;&#13;")), "<OutputArguments />");
  EXPECT_EQ(Text(Root, "RootFolder"), folder / "new");
  EXPECT_EQ(Dword(RpcKey, "Port"), 7000U);
  EXPECT_EQ(Dword(Root, "MountPort"), 1100U);
  EXPECT_EQ(Dword(Root, "NfsPort"), 2100U);
  EXPECT_TRUE(IsLocked());
  EXPECT_TRUE(HasTrimmed("Enumerating service locks."));
  EXPECT_TRUE(HasTrimmed("Clearing NFS items registry cache."));
  EXPECT_TRUE(HasTrimmed("Storing RPC server settings. Static port: [true], Port: [7000]."));
  EXPECT_EQ(context->GetRootFolder()->Get(), Local()) << "what the service uses stays";
  EXPECT_EQ(Run("GetParams"),
            Output({{"rootFolder", folder / "new"}, {"rpcPort", "7000"}, {"mountPort", "1100"}, {"nfsPort", "2100"}}));
}

TEST_F(ServiceCommands, NoStaticPortIsWrittenAsItIsRead) {
  for (const char* none : {"4294967295", "-1"}) {
    Put(RpcKey, "Port", 7000U);
    Run("Reconfigure", Settings(Local(), none));
    std::uint32_t port = 0;
    EXPECT_NE(registry.GetDword(RpcKey, "Port", port), 0U) << none;
  }
}

TEST_F(ServiceCommands, ABlankRootFolderLeavesTheFileSystemUsable) {
  for (const char* blank : {" \t ", "", "&#10;&#13;"}) {
    EXPECT_THAT(Fail("Reconfigure", Settings(blank)),
                ElementsAre("Failed to reconfigure NFS service: invalid root folder.", "RPC: Failed Reconfigure."));
    EXPECT_FALSE(IsLocked());
  }
  EXPECT_EQ(Text(Root, "RootFolder"), Local());
  EXPECT_TRUE(NewShare("vol").starts_with("{"));
}

TEST_F(ServiceCommands, ALockIsFoundBeforeAnyArgumentIsRead) {
  Mount("vm");
  EXPECT_THAT(Fail("Reconfigure"),
              ElementsAre("Failed to reconfigure NFS service: there is at least 1 active connection.",
                          "RPC: Failed Reconfigure."));
  EXPECT_FALSE(IsLocked());
}

TEST_F(ServiceCommands, NewSettingsAreReadInTheirOrder) {
  arguments_t arguments;
  for (const auto& argument : Settings(Local())) {
    EXPECT_EQ(Fail("Reconfigure", arguments).front(), "Value of the argument '" + argument.first + "' is not defined.");
    arguments.push_back(argument);
  }
  EXPECT_FALSE(IsLocked());
}

TEST_F(ServiceCommands, AFailureAfterTheLockKeepsIt) {
  for (const arguments_t& arguments :
       {Settings(Local(), "65536"), Settings(Local(), "7000", "65536"), Settings(Local(), "7000", "1100", "70000")}) {
    EXPECT_THAT(Fail("Reconfigure", arguments), ElementsAre("Invalid argument.", "RPC: Failed Reconfigure."));
  }
  EXPECT_TRUE(IsLocked());
  EXPECT_EQ(Text(Root, "RootFolder"), Local());
  std::uint32_t port = 0;
  EXPECT_NE(registry.GetDword(Root, "MountPort", port), 0U) << "nothing is stored before all is known to be sound";
}

TEST_F(ServiceCommands, AFailureToClearTheCacheComesBeforeTheLock) {
  registry.fault = [](std::string_view operation, std::string_view key) {
    return operation == "VisitKeys" && key.ends_with("Shared Folders") ? platform::error_t{1009} : platform::error_t{0};
  };
  EXPECT_EQ(Fail("Reconfigure", Settings(folder / "new")).back(), "RPC: Failed Reconfigure.");
  EXPECT_FALSE(IsLocked());
  registry.fault = {};
  EXPECT_EQ(Text(Root, "RootFolder"), Local());
}

TEST_F(ServiceCommands, AFailureToStoreIsTold) {
  registry.fault = [](std::string_view operation, std::string_view) {
    return operation == "SetValues" ? platform::error_t{5} : platform::error_t{0};
  };
  EXPECT_THAT(Fail("Reconfigure", Settings(folder / "new")),
              Contains("Failed to store RPC server settings. Key name: [" + std::string(RpcKey) + "]."));
  EXPECT_TRUE(IsLocked());
}

}  // namespace
}  // namespace test
