// Allowed hosts, the reported size of the datastore, and backup mounts.
#include "config/address_checker.h"
#include "config/reg_config.h"
#include "management_fixture.h"
#include "support/fake_mount_agent.h"

namespace test {
namespace {

using testing::ElementsAre;

constexpr char Uid[] = "{00000000-0000-0000-0000-000000000007}";

using DatastoreCommands = ManagementFixture;
using MountCommands = ManagementFixture;

std::string Missing(const std::string& name) {
  return "Value of the argument '" + name + "' is not defined.";
}

TEST_F(DatastoreCommands, HostsComeAndGo) {
  EXPECT_EQ(Run("AddEsxHostAddr", {{"allowedHostAddr", "10.0.0.1;10.0.0.2"}}), "<OutputArguments />");
  EXPECT_EQ(context->GetAddressChecker()->ToString(), "10.0.0.1;10.0.0.2");
  EXPECT_EQ(Run("DeleteEsxHostAddr", {{"allowedHostAddr", "10.0.0.1"}}), "<OutputArguments />");
  EXPECT_EQ(context->GetAddressChecker()->ToString(), "10.0.0.2");
  EXPECT_EQ(Text(Root, "AllowedAddresses"), "10.0.0.2") << "the list is stored";
  EXPECT_TRUE(HasTrimmed("RPC: AddEsxHostAddr"));
  EXPECT_TRUE(HasTrimmed("RPC: DeleteEsxHostAddr"));
}

TEST_F(DatastoreCommands, HostsAreAsked) {
  for (const char* command : {"AddEsxHostAddr", "DeleteEsxHostAddr"}) {
    EXPECT_THAT(Fail(command), ElementsAre(Missing("allowedHostAddr"),
                                           "Failed to retrieve value of the multibyte attribute 'allowedHostAddr'.",
                                           "RPC: Failed " + std::string(command) + "."));
  }
}

TEST_F(DatastoreCommands, ASizeIsSetReadAndReset) {
  EXPECT_EQ(Run("GetNfsDatastoreSize"),
            Output({{"nfsTotalSpace", "0"}, {"nfsFreeSpace", "0"}, {"nfsCustomSize", "false"}}));
  EXPECT_EQ(Run("SetNfsDatastoreSize", {{"nfsTotalSpace", "1000"}, {"nfsFreeSpace", "18446744073709551615"}}),
            "<OutputArguments />")
      << "more free than there is at all is taken as it is";
  EXPECT_EQ(Run("GetNfsDatastoreSize"),
            Output({{"nfsTotalSpace", "1000"}, {"nfsFreeSpace", "18446744073709551615"}, {"nfsCustomSize", "true"}}));
  EXPECT_EQ(Run("ResetNfsDatastoreSize"), "<OutputArguments />");
  EXPECT_EQ(Run("GetNfsDatastoreSize"),
            Output({{"nfsTotalSpace", "1000"}, {"nfsFreeSpace", "18446744073709551615"}, {"nfsCustomSize", "false"}}));
  for (const char* scope : {"RPC: SetNFSDatastoreSize", "RPC: GetNFSDatastoreSize", "RPC: ResetNFSDatastoreSize"})
    EXPECT_TRUE(HasTrimmed(scope)) << scope;
}

TEST_F(DatastoreCommands, SizesAreNumbers) {
  EXPECT_THAT(Fail("SetNfsDatastoreSize", {{"nfsTotalSpace", "1"}}),
              ElementsAre(Missing("nfsFreeSpace"), "Failed to retrieve value of the UInt64 attribute 'nfsFreeSpace'.",
                          "RPC: Failed SetNFSDatastoreSize."));
  EXPECT_EQ(Fail("SetNfsDatastoreSize").front(), Missing("nfsTotalSpace"));
  EXPECT_EQ(Run("GetNfsDatastoreSize"),
            Output({{"nfsTotalSpace", "0"}, {"nfsFreeSpace", "0"}, {"nfsCustomSize", "false"}}));
}

TEST_F(DatastoreCommands, WithoutServiceTheyFail) {
  CSvcContextHolder::Set({});
  const std::string none = "Service context is not initialized.";
  EXPECT_THAT(Fail("GetNfsDatastoreSize"), ElementsAre(none, "RPC: Failed GetNFSDatastoreSize."));
  EXPECT_THAT(Fail("ResetNfsDatastoreSize"), ElementsAre(none, "RPC: Failed ResetNFSDatastoreSize."));
  EXPECT_THAT(Fail("AddEsxHostAddr", {{"allowedHostAddr", ""}}), ElementsAre(none, "RPC: Failed AddEsxHostAddr."));
}

TEST_F(MountCommands, AMountReadsItsArgumentsInTheirOrder) {
  const arguments_t all = {{"mountId", Uid}, {"shareId", Uid},    {"nfsRelativePath", "vm"},
                           {"vmName", "vm"}, {"description", ""}, {"pipeName", "pipe"}};
  arguments_t arguments;
  for (const auto& argument : all) {
    EXPECT_EQ(Fail("MountBackup", arguments).front(), Missing(argument.first));
    arguments.push_back(argument);
  }
  EXPECT_EQ(Fail("MountBackup", arguments).back(), "RPC: Failed MountBackup.");
  const std::string input = Input(all);
  EXPECT_THAT(Fail("MountBackup", input.substr(0, input.rfind('<')) + "<allowedHostAddr/></InputArguments>"),
              ElementsAre("Attribute value is not specified. Attribute: [value].",
                          "Failed to retrieve value of the multibyte attribute 'allowedHostAddr'.",
                          "RPC: Failed MountBackup."));
}

TEST_F(MountCommands, ADismountReadsItsArgument) {
  EXPECT_THAT(Fail("DismountBackup"),
              ElementsAre(Missing("mountId"), "Failed to retrieve value of the GUID attribute 'mountId'.",
                          "RPC: Failed DismountBackup."));
}

TEST_F(MountCommands, AMountWithoutAgentIsRefusedWithTheWholeCause) {
  const std::string share = NewShare("vol");
  EXPECT_THAT(Fail("MountBackup", {{"mountId", Uid},
                                   {"shareId", share},
                                   {"nfsRelativePath", ""},
                                   {"vmName", "machine"},
                                   {"description", "of monday"},
                                   {"pipeName", "nobody"}}),
              ElementsAre("NFS mount agent is not started or not functional (2).",
                          "Failed to connect to the FS server. Pipe: [nobody].",
                          "Failed to mount backup items. VM name: [machine]. Comment: [of monday]. Mount point: [].",
                          "RPC: Failed MountBackup."));
  EXPECT_EQ(Run("EnumLocks"), "<OutputArguments><locks /></OutputArguments>");
}

TEST_F(MountCommands, AMountComesAndGoes) {
  FakeMountAgent agent("vm1");
  agent.SetFile("disk.img", WireBytes("hello"));
  const std::string share = NewShare("vol");
  EXPECT_EQ(Run("MountBackup", {{"mountId", Uid},
                                {"shareId", share},
                                {"nfsRelativePath", "/"},
                                {"vmName", "machine"},
                                {"description", ""},
                                {"pipeName", "vm1"},
                                {"allowedHostAddr", "10.1.1.1"}}),
            Output({}));
  SRegConfigData catalogue;
  CRegConfig().Load(catalogue);
  const CBackupMountCfg expected{.nfsFolderID = *platform::GuidFromText(share),
                                 .mountPoint = "/",
                                 .vmName = "machine",
                                 .description = "",
                                 .pipe = "vm1",
                                 .allowedHostAddr = "10.1.1.1"};
  ASSERT_EQ(catalogue.mounts.size(), 1U);
  EXPECT_EQ(*catalogue.mounts.at(*platform::GuidFromText(Uid)), expected);
  EXPECT_TRUE(HasTrimmed("[COM] Mounting backup items."));
  EXPECT_TRUE(HasTrimmed("[COM] Items were mounted"));
  EXPECT_TRUE(HasTrimmed("[COM] Backup items were mounted."));

  EXPECT_EQ(Run("DismountBackup", {{"mountId", Uid}}), Output({}));
  CRegConfig().Load(catalogue);
  EXPECT_TRUE(catalogue.mounts.empty());
  EXPECT_TRUE(HasTrimmed("[COM] Items were dismounted."));
  EXPECT_EQ(Run("DismountBackup", {{"mountId", Uid}}), Output({})) << "one that is gone is no fault";
  EXPECT_TRUE(HasTrimmed("Mount configuration \"" + std::string(Uid) + "\" was not found."));
}

}  // namespace
}  // namespace test
