#include "kelvo-nfsctl/command_line.h"

#include <gmock/gmock.h>

#include <map>
#include <optional>
#include <sstream>

#include "config/reg_keys.h"
#include "foundation/exc.h"
#include "kelvo-nfsctl/failure.h"
#include "platform/registry.h"
#include "support/temp_dir.h"

using nfsctl::BadUsage;
using nfsctl::Failed;
using nfsctl::Succeeded;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char* Id = "{00000000-0000-0000-0000-000000000001}";

/// Answers each command with a document that the test names, and notes what was asked.
class CFakeService : public nfsctl::IService {
 public:
  struct SState {
    std::map<std::string, std::string> answers;
    std::vector<std::pair<std::string, std::string>> calls;
    std::optional<nfsctl::SConnectionOptions> options;
    std::string failure;
    bool wasPinged = false;
  };

  explicit CFakeService(SState& state) : state_(state) {}
  std::string Call(const std::string& command, const std::string& input) override {
    state_.calls.emplace_back(command, input);
    if (!state_.failure.empty())
      throw exc::runtime_exc_t(state_.failure);
    const auto answer = state_.answers.find(command);
    return "<OutputArguments>" + (answer == state_.answers.end() ? "" : answer->second) + "</OutputArguments>";
  }
  void Ping() override { state_.wasPinged = true; }

 private:
  SState& state_;
};

class NfsctlTest : public testing::Test {
 protected:
  int Run(const std::vector<std::string>& arguments) {
    out_.str({});
    err_.str({});
    state_.calls.clear();
    return nfsctl::Run(
        arguments,
        [this](const nfsctl::SConnectionOptions& options) {
          state_.options = options;
          return std::make_unique<CFakeService>(state_);
        },
        out_, err_);
  }
  /// The one call of a command that succeeds; its whole input.
  std::string InputOf(const std::vector<std::string>& arguments, const std::string& command) {
    EXPECT_EQ(Run(arguments), Succeeded) << err_.str();
    EXPECT_FALSE(state_.calls.empty());
    if (state_.calls.empty() || state_.calls.back().first != command)
      return "another command";
    return state_.calls.back().second;
  }
  nlohmann::json Json() const { return nlohmann::json::parse(out_.str()); }
  static std::string Input(const std::string& arguments) {
    return arguments.empty() ? "<InputArguments></InputArguments>"
                             : "<InputArguments>" + arguments + "</InputArguments>";
  }

  CFakeService::SState state_;
  std::ostringstream out_;
  std::ostringstream err_;
  test::TempDir folder_;
  test::ScopedEnvironment data_{"ALLUSERSPROFILE", folder_ / "data"};
  test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", "/run/test"};
  test::ScopedEnvironment endpoint_{"KELVO_ENDPOINT", ""};
};

TEST_F(NfsctlTest, CreatesAShare) {
  state_.answers["CreateShare"] = std::string("<shareId value=\"") + Id + "\"/>";
  EXPECT_EQ(InputOf({"share", "create", "/a<b>&\"c\""}, "CreateShare"),
            Input("<nfsFolderPath value=\"/a&#60;b&#62;&#38;&#34;c&#34;\"/>"));
  EXPECT_THAT(out_.str(), HasSubstr(Id));
  EXPECT_EQ(Run({"share", "create", "/x", "--json"}), Succeeded);
  EXPECT_EQ(Json(), nlohmann::json({{"shareId", Id}}));
}

TEST_F(NfsctlTest, AShareIsNamedByPathOrId) {
  state_.answers["LookupShare"] = std::string("<shareId value=\"") + Id + "\"/>";
  state_.answers["GetShareConfig"] = "<nfsFolderPath value=\"/x &amp; y\"/>";
  ASSERT_EQ(Run({"share", "show", "/x"}), Succeeded);
  EXPECT_THAT(state_.calls,
              ElementsAre(std::pair("LookupShare", Input("<mountPoint value=\"/x\"/>")),
                          std::pair("GetShareConfig", Input(std::string("<shareId value=\"") + Id + "\"/>"))));
  EXPECT_EQ(out_.str(), std::string("ID                                      PATH\n") + Id + "  /x & y\n");
  for (const char* const id : {Id, "00000000-0000-0000-0000-000000000001"}) {
    ASSERT_EQ(Run({"share", "delete", id}), Succeeded);
    EXPECT_THAT(state_.calls,
                ElementsAre(std::pair("DeleteShare", Input(std::string("<shareId value=\"") + Id + "\"/>"))));
  }
}

TEST_F(NfsctlTest, Folders) {
  state_.answers["CreateFolder"] = "<hostFsPath value=\"/srv/x/f\"/>";
  const std::string both = std::string("<shareId value=\"") + Id + "\"/><nfsRelativePath value=\"f\"/>";
  EXPECT_EQ(InputOf({"folder", "create", Id, "f"}, "CreateFolder"), Input(both));
  EXPECT_EQ(InputOf({"folder", "create", Id, "f", "--allow", "10.0.0.5"}, "CreateFolder"),
            Input(both + "<allowedHostAddr value=\"10.0.0.5\"/>"));
  EXPECT_THAT(out_.str(), HasSubstr("/srv/x/f"));
  EXPECT_EQ(InputOf({"folder", "delete", Id, "f"}, "DeleteFolder"), Input(both));
}

TEST_F(NfsctlTest, HostsAreSentTogether) {
  EXPECT_EQ(InputOf({"host", "add", "10.0.0.5", "10.1.0.0/16"}, "AddEsxHostAddr"),
            Input("<allowedHostAddr value=\"10.0.0.5;10.1.0.0/16\"/>"));
  EXPECT_EQ(InputOf({"host", "remove", "10.0.0.5"}, "DeleteEsxHostAddr"),
            Input("<allowedHostAddr value=\"10.0.0.5\"/>"));
}

TEST_F(NfsctlTest, HostsAndSharesAreListedFromTheStoredSettings) {
  ASSERT_EQ(Run({"host", "list", "--json"}), Succeeded) << err_.str();
  EXPECT_EQ(Json(), nlohmann::json({{"hosts", nlohmann::json::array()}}));
  auto& registry = platform::registry_t::Instance();
  ASSERT_EQ(registry.SetText(regkeys::Root, "AllowedAddresses", "10.0.0.5;10.1.0.0/16"), 0U);
  ASSERT_EQ(registry.SetText(std::string(regkeys::SharedFolders) + "\\" + Id, "nfsFolderName", "/x"), 0U);
  ASSERT_EQ(Run({"host", "list"}), Succeeded);
  EXPECT_EQ(out_.str(), "10.0.0.5\n10.1.0.0/16\n");
  ASSERT_EQ(Run({"share", "show", "--json"}), Succeeded);
  EXPECT_EQ(Json(), nlohmann::json({{"shares", {{{"shareId", Id}, {"nfsFolderPath", "/x"}}}}}));
  EXPECT_THAT(state_.calls, IsEmpty());
}

TEST_F(NfsctlTest, WhatNoCommandListsIsNotListedFromAfar) {
  for (const auto& command : {std::vector<std::string>{"host", "list"}, {"share", "show"}}) {
    std::vector<std::string> arguments{"--endpoint", "tcp:nfs1"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    EXPECT_EQ(Run(arguments), Failed);
    EXPECT_THAT(err_.str(), HasSubstr("run this command on the machine of the service"));
    EXPECT_EQ(out_.str(), "");
  }
}

TEST_F(NfsctlTest, Sizes) {
  EXPECT_EQ(InputOf({"size", "set", "10GiB", "4096"}, "SetNfsDatastoreSize"),
            Input("<nfsTotalSpace value=\"10737418240\"/><nfsFreeSpace value=\"4096\"/>"));
  state_.answers["GetNfsDatastoreSize"] =
      "<nfsTotalSpace value=\"18446744073709551615\"/><nfsFreeSpace value=\"1536\"/><nfsCustomSize value=\"true\"/>";
  EXPECT_EQ(Run({"size", "get"}), Succeeded);
  EXPECT_THAT(out_.str(), HasSubstr("1.5 KiB (1536 bytes)"));
  EXPECT_EQ(Run({"size", "get", "--json"}), Succeeded);
  EXPECT_EQ(Json(), nlohmann::json(
                        {{"nfsTotalSpace", 18446744073709551615U}, {"nfsFreeSpace", 1536}, {"nfsCustomSize", true}}));
  EXPECT_EQ(InputOf({"size", "reset"}, "ResetNfsDatastoreSize"), Input(""));
  EXPECT_EQ(Run({"size", "set", "10 gallons", "1"}), BadUsage);
  EXPECT_THAT(state_.calls, IsEmpty());
}

TEST_F(NfsctlTest, SettingsThatAreNotGivenStay) {
  state_.answers["GetParams"] =
      "<rootFolder value=\"/srv\"/><rpcPort value=\"-1\"/><mountPort value=\"1058\"/><nfsPort value=\"2049\"/>";
  EXPECT_EQ(Run({"params", "get", "--json"}), Succeeded);
  EXPECT_EQ(Json(),
            nlohmann::json({{"rootFolder", "/srv"}, {"rpcPort", nullptr}, {"mountPort", 1058}, {"nfsPort", 2049}}));
  EXPECT_EQ(InputOf({"params", "set", "--nfs-port", "12049"}, "Reconfigure"),
            Input("<rootFolder value=\"/srv\"/><rpcPort value=\"4294967295\"/><mountPort value=\"1058\"/>"
                  "<nfsPort value=\"12049\"/>"));
  EXPECT_EQ(InputOf({"params", "set", "--rpc-port", "6161", "--root-folder", "/new"}, "Reconfigure"),
            Input("<rootFolder value=\"/new\"/><rpcPort value=\"6161\"/><mountPort value=\"1058\"/>"
                  "<nfsPort value=\"2049\"/>"));
  EXPECT_THAT(InputOf({"params", "set", "--rpc-port", "none"}, "Reconfigure"),
              HasSubstr("<rpcPort value=\"4294967295\"/>"));
  for (const char* const port : {"65536", "x", "-2", ""})
    EXPECT_EQ(Run({"params", "set", "--rpc-port", port}), BadUsage) << port;
  EXPECT_EQ(Run({"params", "set", "--nfs-port", "65536"}), BadUsage);
  EXPECT_EQ(Run({"params", "set"}), BadUsage);
  EXPECT_THAT(state_.calls, IsEmpty());
}

TEST_F(NfsctlTest, PublishesAndWithdrawsAMount) {
  const std::string input = InputOf({"mount", "publish", Id, "web", "--vm", "web-server", "--pipe", "agent-1", "--id",
                                     "{00000000-0000-0000-0000-00000000000A}", "--allow", "10.0.0.5"},
                                    "MountBackup");
  EXPECT_EQ(input,
            Input(std::string("<mountId value=\"{00000000-0000-0000-0000-00000000000a}\"/><shareId value=\"") + Id +
                  "\"/><nfsRelativePath value=\"web\"/><vmName value=\"web-server\"/><description value=\"\"/>"
                  "<pipeName value=\"agent-1\"/><allowedHostAddr value=\"10.0.0.5\"/>"));
  ASSERT_EQ(Run({"mount", "publish", Id, "web", "--vm", "v", "--pipe", "p", "--json"}), Succeeded);
  const std::string mountId = Json().at("mountId");
  EXPECT_EQ(InputOf({"mount", "withdraw", mountId}, "DismountBackup"), Input("<mountId value=\"" + mountId + "\"/>"));
  EXPECT_EQ(Run({"mount", "withdraw", "web"}), BadUsage);
  EXPECT_EQ(Run({"mount", "publish", Id, "web", "--vm", "v"}), BadUsage);
}

TEST_F(NfsctlTest, Locks) {
  state_.answers["EnumLocks"] = "<locks/>";
  EXPECT_EQ(Run({"locks"}), Succeeded);
  EXPECT_EQ(out_.str(), "Nothing is in use.\n");
  state_.answers["EnumLocks"] = "<locks><item BackupConsole=\"vm1\" JobName=\"\"/></locks>";
  EXPECT_EQ(Run({"locks", "--json"}), Succeeded);
  EXPECT_EQ(Json(), nlohmann::json({{"locks", {{{"BackupConsole", "vm1"}, {"JobName", ""}}}}}));
}

TEST_F(NfsctlTest, LogFolderVersionAndPing) {
  state_.answers["GetLogFolder"] = "<LogFolder value=\"/var/log/x\"/>";
  EXPECT_EQ(Run({"log-folder"}), Succeeded);
  EXPECT_EQ(out_.str(), "/var/log/x\n");
  state_.answers["TestCompatible"] = "<isCompatible value=\"false\"/>";
  EXPECT_EQ(InputOf({"compat", "1.0.0.0"}, "TestCompatible"), Input("<backupConsoleVersion value=\"1.0.0.0\"/>"));
  EXPECT_THAT(out_.str(), HasSubstr("is not compatible"));
  EXPECT_EQ(Run({"ping"}), Succeeded);
  EXPECT_TRUE(state_.wasPinged);
}

TEST_F(NfsctlTest, CallSendsWhatStandsThere) {
  state_.answers["Any"] = "<a value=\"1\"/><list><item x=\"y\"/></list>";
  EXPECT_EQ(InputOf({"call", "Any", "name=va=lue", "empty=", "x=[1,2]"}, "Any"),
            Input("<name value=\"va=lue\"/><empty value=\"\"/><x value=\"[1,2]\"/>"));
  EXPECT_EQ(out_.str(), "<OutputArguments><a value=\"1\"/><list><item x=\"y\"/></list></OutputArguments>\n");
  EXPECT_EQ(Run({"call", "Any", "--json"}), Succeeded);
  EXPECT_EQ(Json(), nlohmann::json({{"a", "1"}, {"list", {{{"x", "y"}}}}}));
  EXPECT_EQ(InputOf({"call", "Any", "--xml", "<no document"}, "Any"), "<no document");
  for (const char* const argument : {"noequals", "=x", "a b=c", "1=2", "<a>=1"})
    EXPECT_EQ(Run({"call", "Any", argument}), BadUsage) << argument;
  EXPECT_EQ(Run({"call", "Any", "a=b", "--xml", "<x/>"}), BadUsage);
  EXPECT_EQ(Run({"call"}), BadUsage);
}

TEST_F(NfsctlTest, ACommandMayBeAnArgument) {
  state_.answers["CreateShare"] = std::string("<shareId value=\"") + Id + "\"/>";
  EXPECT_EQ(InputOf({"share", "create", "locks"}, "CreateShare"), Input("<nfsFolderPath value=\"locks\"/>"));
  EXPECT_EQ(InputOf({"share", "create", "create"}, "CreateShare"), Input("<nfsFolderPath value=\"create\"/>"));
}

TEST_F(NfsctlTest, TheEndpointStandsAnywhere) {
  state_.answers["GetLogFolder"] = "<LogFolder value=\"/l\"/>";
  const auto endpointOf = [this](const std::vector<std::string>& arguments) {
    EXPECT_EQ(Run(arguments), Succeeded) << err_.str();
    return state_.options->endpoint;
  };
  EXPECT_EQ(endpointOf({"log-folder"}).path, "/run/test/management");
  EXPECT_EQ(endpointOf({"--endpoint", "unix:/a b", "log-folder"}).path, "/a b");
  EXPECT_EQ(endpointOf({"log-folder", "--endpoint", "unix:/a"}).path, "/a");
  state_.answers["GetParams"] =
      "<rootFolder value=\"/srv\"/><rpcPort value=\"1\"/><mountPort value=\"2\"/><nfsPort value=\"3\"/>";
  EXPECT_EQ(endpointOf({"params", "--endpoint", "tcp:h:1", "get"}).port, 1);
  const test::ScopedEnvironment variable("KELVO_ENDPOINT", "tcp:from-environment");
  EXPECT_EQ(endpointOf({"log-folder"}).host, "from-environment");
  EXPECT_EQ(endpointOf({"log-folder", "--endpoint", "tcp:h"}).host, "h");
}

TEST_F(NfsctlTest, Authentication) {
  ASSERT_EQ(Run({"ping", "--endpoint", "tcp:h"}), Succeeded);
  EXPECT_EQ(state_.options->auth, dcerpc::auth_type_t::Negotiate);
  EXPECT_EQ(state_.options->level, dcerpc::auth_level_t::Privacy);
  ASSERT_EQ(Run({"ping", "--endpoint", "tcp:h", "--auth", "ntlm", "--user", "D\\u", "--level", "integrity", "--timeout",
                 "7"}),
            Succeeded);
  EXPECT_EQ(state_.options->auth, dcerpc::auth_type_t::Ntlm);
  EXPECT_EQ(state_.options->level, dcerpc::auth_level_t::Integrity);
  EXPECT_EQ(state_.options->user, "D\\u");
  EXPECT_EQ(state_.options->limit, std::chrono::seconds(7));
  EXPECT_EQ(Run({"ping", "--endpoint", "tcp:h", "--auth", "ntlm"}), BadUsage);
  EXPECT_EQ(Run({"ping", "--endpoint", "tcp:h", "--auth", "rot13"}), BadUsage);
  EXPECT_EQ(Run({"ping", "--endpoint", "tcp:h", "--level", "call"}), BadUsage);
  EXPECT_EQ(Run({"ping", "--user", "u"}), BadUsage);
  EXPECT_EQ(Run({"ping", "--level", "privacy"}), BadUsage);
  EXPECT_EQ(Run({"ping", "--password", "x"}), BadUsage);
}

TEST_F(NfsctlTest, BadUsageCallsNothing) {
  for (const auto& arguments : {std::vector<std::string>{},
                                {"nothing"},
                                {"share"},
                                {"share", "create"},
                                {"share", "create", "a", "b"},
                                {"locks", "--bad"},
                                {"compat"},
                                {"locks", "--endpoint", "http:x"}}) {
    EXPECT_EQ(Run(arguments), BadUsage);
    EXPECT_THAT(err_.str(), testing::Not(IsEmpty()));
    EXPECT_THAT(state_.calls, IsEmpty());
    EXPECT_EQ(out_.str(), "");
  }
}

TEST_F(NfsctlTest, HelpSucceeds) {
  EXPECT_EQ(Run({"--help"}), Succeeded);
  EXPECT_THAT(out_.str(), HasSubstr("share create /datastore1"));
  EXPECT_EQ(Run({"share", "create", "--help"}), Succeeded);
  EXPECT_EQ(Run({"--version"}), Succeeded);
}

TEST_F(NfsctlTest, AFailureIsToldWithItsCauseFirst) {
  state_.failure = "the cause\nThe command failed.";
  EXPECT_EQ(Run({"locks", "--json"}), Failed);
  EXPECT_EQ(out_.str(), "");
  EXPECT_EQ(err_.str(), "kelvo-nfsctl: The cause.\n  The command failed.\n");
}

TEST_F(NfsctlTest, AnAnswerThatCannotBeReadIsAFailure) {
  for (const char* const answer : {"<a", "", "<LogFolder/>", "<LogFolder>"}) {
    state_.answers["GetLogFolder"] = answer;
    EXPECT_EQ(Run({"log-folder"}), Failed) << answer;
    EXPECT_THAT(err_.str(), StartsWith("kelvo-nfsctl: The answer of the service cannot be read: ")) << answer;
  }
}

TEST(NfsctlFailure, TextsBecomeSentences) {
  EXPECT_EQ(nfsctl::FormatFailure("a\r\n\n  b!  \nC [d]"), "kelvo-nfsctl: A.\n  B!\n  C [d].\n");
  EXPECT_EQ(nfsctl::FormatFailure(""), "kelvo-nfsctl: The command failed, and the service did not say why.\n");
  EXPECT_THAT(nfsctl::FormatFailure("RPC client is not a member of built-in Administrators group."),
              HasSubstr("kelvo-admins"));
}

}  // namespace
