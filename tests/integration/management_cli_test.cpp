// The running service under kelvo-nfsctl, over the Unix socket and over TCP.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "integration/support/agent.h"
#include "integration/support/service.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

constexpr const char* NotMember = "RPC client is not a member of built-in Administrators group.";

class CManagementTest : public testing::Test {
 protected:
  CManagementTest() {
    const std::string folder = service_.Environment().at("ALLUSERSPROFILE") + "/Kelvo";
    fs::create_directories(folder);
    WriteFile(folder + "/ntlm-users", "TEST:root:secret\nTEST:nobody:other\n");
    ::chmod((folder + "/ntlm-users").c_str(), 0600);
  }
  void SetUp() override { service_.Start(); }

  SResult Ctl(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment = {}) {
    std::vector<std::string> command{Program("kelvo-nfsctl")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::map<std::string, std::string> variables = service_.Environment();
    variables.insert(environment.begin(), environment.end());
    return RunProgram(command, variables);
  }
  /// The output of a command that must succeed.
  std::string Done(const std::vector<std::string>& arguments) {
    const SResult result = Ctl(arguments);
    EXPECT_EQ(result.exitCode, 0) << arguments.at(0) << ": " << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
  }
  /// What a command tells that must fail.
  std::string Refused(const std::vector<std::string>& arguments) {
    const SResult result = Ctl(arguments);
    EXPECT_EQ(result.exitCode, 1) << arguments.at(0) << ": " << result.out;
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, StartsWith("kelvo-nfsctl: "));
    return result.err;
  }
  SResult CtlOverTcp(const std::vector<std::string>& arguments, const std::vector<std::string>& options = {},
                     const std::string& password = "secret") {
    std::vector<std::string> whole{"--endpoint", "tcp:127.0.0.1"};
    whole.insert(whole.end(), options.begin(), options.end());
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    return Ctl(whole, {{"KELVO_PASSWORD", password}});
  }

  CService service_;
};

TEST_F(CManagementTest, MountsAreListedWhetherTheirAgentRunsOrNot) {
  EXPECT_EQ(Done({"mount", "list"}), "There are no mounts.\n");
  CTempFolder source;
  CMountAgent agent(service_, "vm1", source.Path());
  agent.Start();
  const std::string id = agent.Publish();
  const std::string listed = Done({"mount", "list"});
  EXPECT_THAT(listed, HasSubstr(id));
  EXPECT_THAT(listed, HasSubstr("  /share  "));
  EXPECT_THAT(listed, HasSubstr("  vm1"));
  agent.Stop();
  EXPECT_EQ(Done({"mount", "list"}), listed);
  Done({"mount", "withdraw", id});
  EXPECT_EQ(Done({"--json", "mount", "list"}), "{\n  \"mounts\": []\n}\n");
  EXPECT_EQ(CtlOverTcp({"mount", "list"}).exitCode, 1) << "nothing of another machine is read";
}

TEST_F(CManagementTest, AShareIsMadeServedAndDeleted) {
  EXPECT_EQ(Done({"ping"}), "The service answers.\n");
  EXPECT_THAT(Done({"share", "create", "/datastore1"}), StartsWith("Created share /datastore1 with the ID {"));
  EXPECT_TRUE(CNfsClient().Mount("/datastore1").has_value());
  EXPECT_THAT(Done({"share", "show", "/datastore1"}), HasSubstr("  /datastore1\n"));
  const std::string all = Done({"share", "show"});
  EXPECT_THAT(all, HasSubstr("  /datastore1\n"));
  EXPECT_THAT(all, HasSubstr("  /share\n"));
  Done({"share", "delete", "/datastore1"});
  EXPECT_FALSE(CNfsClient().Mount("/datastore1").has_value());
  EXPECT_THAT(Refused({"share", "show", "/datastore1"}), HasSubstr("\n  RPC: Failed LookupShare.\n"));
  EXPECT_THAT(Refused({"share", "show", "{00000000-0000-0000-0000-000000000001}"}),
              StartsWith("kelvo-nfsctl: NFS shared folder with ID \"{00000000-0000-0000-0000-000000000001}\" is not "
                         "registered or disconnected.\n  RPC: Failed GetShareConfig.\n"));
}

TEST_F(CManagementTest, AFolderIsMadeAndDeletedWithItsContent) {
  EXPECT_THAT(Done({"folder", "create", "/share", "a/b c"}), HasSubstr(service_.Root() + "/a/b c"));
  EXPECT_TRUE(fs::is_directory(service_.Root() + "/a/b c"));
  WriteFile(service_.Root() + "/a/b c/file", "x");
  Done({"folder", "delete", "/share", "a"});
  EXPECT_FALSE(fs::exists(service_.Root() + "/a"));
}

TEST_F(CManagementTest, AHostIsLetIn) {
  const auto mayMount = [] { return CNfsClient(2049, 1058, "127.0.0.2").Mount().has_value(); };
  EXPECT_FALSE(mayMount());
  Done({"host", "add", "127.0.0.2", "10.1.0.0/16"});
  EXPECT_TRUE(mayMount());
  EXPECT_EQ(Done({"host", "list"}), "10.1.0.0/16\n127.0.0.1\n127.0.0.2\n");
  Done({"host", "remove", "10.1.0.0/16"});
  EXPECT_EQ(Done({"host", "list"}), "127.0.0.1\n127.0.0.2\n");
  Done({"host", "remove", "127.0.0.2"});
  EXPECT_EQ(Done({"host", "list"}), "127.0.0.1\n");
  EXPECT_TRUE(mayMount()) << "until the next start";
  EXPECT_EQ(service_.Stop(), 0);
  service_.Start();
  EXPECT_FALSE(mayMount());
  EXPECT_TRUE(CNfsClient().Mount().has_value());
}

TEST_F(CManagementTest, TheSizeIsToldAndReset) {
  Done({"size", "set", "10GiB", "1GiB"});
  EXPECT_EQ(Done({"size", "get"}),
            "Hosts are told this size:\nTotal  10 GiB (10737418240 bytes)\nFree   1 GiB (1073741824 bytes)\n");
  Done({"size", "reset"});
  EXPECT_EQ(Done({"call", "GetNfsDatastoreSize"}),
            "<OutputArguments><nfsTotalSpace value=\"10737418240\" /><nfsFreeSpace value=\"1073741824\" />"
            "<nfsCustomSize value=\"false\" /></OutputArguments>\n");
}

TEST_F(CManagementTest, SettingsAreStoredForTheNextStart) {
  EXPECT_THAT(Done({"params", "get"}), HasSubstr("NFS port         2049\n"));
  Done({"params", "set", "--nfs-port", "12049"});
  EXPECT_EQ(service_.GetValue("NfsPort"), "12049");
  EXPECT_EQ(service_.GetValue("RootFolder"), service_.Root());
  EXPECT_EQ(service_.GetValue("Port"), "6161");
  EXPECT_TRUE(CNfsClient().Mount().has_value());
  EXPECT_THAT(Refused({"share", "create", "/x"}),
              testing::AllOf(HasSubstr("Virtual file system is locked."), HasSubstr("restart the service")));
}

TEST_F(CManagementTest, TellsAboutTheService) {
  EXPECT_EQ(Done({"locks"}), "Nothing is in use.\n");
  EXPECT_EQ(Done({"log-folder"}), fs::path(service_.LogPath()).parent_path().string() + "\n");
  EXPECT_THAT(Done({"compat", "65535.0.0.0"}), HasSubstr(" is compatible"));
  EXPECT_THAT(Done({"compat", "0.0.0.1"}), HasSubstr(" is not compatible"));
  EXPECT_THAT(Refused({"compat", "1.2"}), HasSubstr("Failed to parse version string '1.2'."));
}

TEST_F(CManagementTest, AnyCommandAsItStands) {
  EXPECT_EQ(Refused({"call", "getparams"}), "kelvo-nfsctl: Unknown command: 'getparams'.\n");
  EXPECT_EQ(Done({"call", "IInvokeDispatcher.IsSerialInvokerEnabled"}),
            "<OutputArguments><IsEnabled value=\"false\" /></OutputArguments>\n");
  EXPECT_THAT(Refused({"call", "CreateShare", "--xml", "<InputArguments><nfsFolderPath/></InputArguments>"}),
              StartsWith("kelvo-nfsctl: Attribute value is not specified. Attribute: [value].\n"));
  EXPECT_THAT(Refused({"call", "GetParams", "--xml", "no document"}), HasSubstr("Failed to parse XML content."));
  // Far more than one fragment, both ways.
  const std::string large(100000, 'x');
  EXPECT_EQ(Refused({"call", large}), "kelvo-nfsctl: Unknown command: '" + large + "'.\n");
}

TEST_F(CManagementTest, AnAdministratorManagesFromAfar) {
  for (const char* const auth : {"negotiate", "ntlm"}) {
    for (const char* const level : {"connect", "packet", "integrity", "privacy"}) {
      SCOPED_TRACE(std::string(auth) + " " + level);
      const SResult result =
          CtlOverTcp({"share", "show", "/share"}, {"--user", "TEST\\root", "--auth", auth, "--level", level});
      EXPECT_EQ(result.exitCode, 0) << result.err;
      EXPECT_THAT(result.out, HasSubstr("  /share\n"));
    }
  }
  const std::string large(100000, 'x');
  EXPECT_THAT(CtlOverTcp({"call", large}, {"--user", "TEST\\root"}).err,
              HasSubstr("Unknown command: '" + large + "'."));
}

TEST_F(CManagementTest, OnlyAnAdministratorManagesFromAfar) {
  const std::vector<std::string> create{"share", "create", "/x"};
  SResult result = CtlOverTcp(create, {"--user", "TEST\\nobody"}, "other");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, testing::AllOf(HasSubstr(NotMember), HasSubstr("kelvo-admins")));
  result = CtlOverTcp(create, {"--user", "TEST\\root"}, "wrong");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("the password is wrong"));
  result = CtlOverTcp(create, {"--auth", "none"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(CtlOverTcp({"ping"}, {"--auth", "none"}).exitCode, 0);
  EXPECT_FALSE(CNfsClient().Mount("/x").has_value());
}

TEST_F(CManagementTest, WhatNoCommandListsIsNotListedFromAfar) {
  const SResult result = CtlOverTcp({"host", "list"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("run this command on the machine of the service"));
}

TEST_F(CManagementTest, ALevelCanBeDemanded) {
  service_.Stop();
  service_.SetValue("MinimumAuthLevel", "REG_DWORD", "6");
  service_.Start();
  const std::vector<std::string> show{"share", "show", "/share"};
  EXPECT_EQ(CtlOverTcp(show, {"--user", "TEST\\root"}).exitCode, 0);
  for (const char* const level : {"connect", "integrity"}) {
    const SResult result = CtlOverTcp(show, {"--user", "TEST\\root", "--level", level});
    EXPECT_EQ(result.exitCode, 1) << level;
    EXPECT_THAT(result.err, HasSubstr("demands a better protected connection"));
  }
  EXPECT_THAT(Done(show), HasSubstr("/share"));
}

TEST_F(CManagementTest, AServiceThatDoesNotRunIsTold) {
  service_.Stop();
  EXPECT_THAT(Refused({"locks"}),
              testing::AllOf(HasSubstr("Failed to connect to the service."), HasSubstr("Is the service running?")));
  const SResult result = CtlOverTcp({"ping"}, {"--auth", "none"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("Failed to connect to the service. Endpoint: [tcp:127.0.0.1:6161]."));
}

TEST_F(CManagementTest, BadUsageIsTold) {
  const SResult result = Ctl({"share", "create"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.err, HasSubstr("PATH"));
}

}  // namespace
