// Allowed hosts, the reported size of the datastore, and backup mounts.
#include "config/address_checker.h"
#include "management_fixture.h"

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

TEST_F(MountCommands, AreToldThatThereAreNoneYet) {
  const std::string none = "Backup mounts are not available in this version.";
  EXPECT_THAT(Fail("MountBackup", {{"mountId", Uid},
                                   {"shareId", Uid},
                                   {"nfsRelativePath", "vm"},
                                   {"vmName", "vm"},
                                   {"description", ""},
                                   {"pipeName", "pipe"}}),
              ElementsAre(none, "RPC: Failed MountBackup."));
  EXPECT_THAT(Fail("DismountBackup", {{"mountId", Uid}}), ElementsAre(none, "RPC: Failed DismountBackup."));
}

}  // namespace
}  // namespace test
