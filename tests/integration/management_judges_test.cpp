// The management endpoint under clients that were written by others: impacket and Samba's libraries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "integration/support/judges.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
using testing::ElementsAre;
using testing::StartsWith;
namespace fs = std::filesystem;

class CManagementJudgesTest : public CJudgesTest {};

TEST_F(CManagementJudgesTest, AnyoneMayTestTheConnectionAndNothingElse) {
  const texts_t calls = With(FewCalls, {Command("CreateShare", Value("nfsFolderPath", "/stolen"))});
  const texts_t answers = With(FewForOthers, {NotMember});
  EXPECT_EQ(Ask(Impacket, {}, calls), answers);
  EXPECT_EQ(Ask(Samba, {}, calls), answers);
  EXPECT_EQ(Ask(Samba, {"--big"}, calls), answers);
  EXPECT_EQ(Ask(Raw, {}, calls), answers);
  EXPECT_EQ(Ask(Raw, {"--big"}, calls), answers);
  EXPECT_FALSE(CNfsClient().Mount("/stolen").has_value());
}

TEST_F(CManagementJudgesTest, AnAdministratorIsKnownByNtlm) {
  for (const char* const user : {"judge-admin", "root"}) {
    for (const char* const level : {"connect", "integrity", "privacy"}) {
      SCOPED_TRACE(std::string(user) + " " + level);
      EXPECT_EQ(Ask(Impacket, As(user, "ntlm", level), FewCalls), FewForAdministrators);
    }
  }
  for (const char* const auth : {"ntlm", "negotiate"}) {
    for (const char* const level : {"connect", "packet", "integrity", "privacy"}) {
      SCOPED_TRACE(std::string(auth) + " " + level);
      EXPECT_EQ(Ask(Samba, As("judge-admin", auth, level), FewCalls), FewForAdministrators);
    }
    EXPECT_EQ(Ask(Samba, With(As("judge-admin", auth, "privacy"), {"--big"}), FewCalls), FewForAdministrators);
  }
}

TEST_F(CManagementJudgesTest, EveryAnswerIsTheDocumentThatItMustBe) {
  for (const char* const script : {Impacket, Samba}) {
    SCOPED_TRACE(script);
    const texts_t caller = As("judge-admin", "ntlm", "privacy");
    const texts_t created = Ask(script, caller, {Command("CreateShare", Value("nfsFolderPath", "/judged"))});
    ASSERT_EQ(created.size(), 1U);
    ASSERT_THAT(created[0], testing::MatchesRegex("1\t<OutputArguments><shareId value=\"\\{[0-9a-f-]{36}\\}\" />"
                                                  "</OutputArguments>\t-"));
    EXPECT_TRUE(CNfsClient().Mount("/judged").has_value());
    const std::string name = created[0].substr(created[0].find('{'), 38);
    const std::string share = Value("shareId", name);
    const std::string folder = Value("nfsRelativePath", "folder");
    const std::string sizes = Value("nfsTotalSpace", "1000") + Value("nfsFreeSpace", "10");
    const std::string host = Value("allowedHostAddr", "127.0.0.2");
    const std::vector<std::pair<std::string, std::string>> expected{
        {Command("LookupShare", Value("mountPoint", "/judged")), Output(share)},
        {Command("GetShareConfig", share), Output(Value("nfsFolderPath", "/judged"))},
        {Command("CreateFolder", share + folder), Output(Value("hostFsPath", service_.Root() + "/folder"))},
        {Command("DeleteFolder", share + folder), Output()},
        {Command("DeleteShare", share), Output()},
        {Command("GetShareConfig", share), "0\t-\tNFS shared folder with ID \"" + name +
                                               "\" is not registered or disconnected.\\nRPC: Failed GetShareConfig."},
        {Command("EnumLocks"), Output("<locks />")},
        {Command("GetLogFolder"), Output(Value("LogFolder", fs::path(service_.LogPath()).parent_path()))},
        {Command("GetParams"), Output(Value("rootFolder", service_.Root()) + Value("rpcPort", "6161") +
                                      Value("mountPort", "1058") + Value("nfsPort", "2049"))},
        {Command("TestCompatible", Value("backupConsoleVersion", "0.0.0.1")), Output(Value("isCompatible", "false"))},
        {Command("SetNfsDatastoreSize", sizes), Output()},
        {Command("GetNfsDatastoreSize"), Output(sizes + Value("nfsCustomSize", "true"))},
        {Command("ResetNfsDatastoreSize"), Output()},
        {Command("AddEsxHostAddr", host), Output()},
        {Command("DeleteEsxHostAddr", host), Output()},
        {Command("\xC3\xA4\xE2\x82\xAC"), "0\t-\tUnknown command: '\xC3\xA4\xE2\x82\xAC'."},
        {Command("\xF0\x9F\x98\x80"), "0\t-\tUnknown command: '\xF0\x9F\x98\x80'."}};
    texts_t calls;
    texts_t answers;
    for (const auto& [call, answer] : expected) {
      calls.push_back(call);
      answers.push_back(answer);
    }
    EXPECT_EQ(Ask(script, caller, calls), answers);
    EXPECT_FALSE(CNfsClient().Mount("/judged").has_value());
  }
}

TEST_F(CManagementJudgesTest, SomeoneElseIsRefused) {
  const texts_t calls = With(FewCalls, {Command("CreateShare", Value("nfsFolderPath", "/stolen"))});
  const texts_t answers = With(FewForOthers, {NotMember});
  for (const char* const level : {"connect", "integrity", "privacy"}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(Ask(Impacket, As("judge-other", "ntlm", level), calls), answers);
    EXPECT_EQ(Ask(Samba, As("judge-other", "negotiate", level), calls), answers);
  }
  EXPECT_FALSE(CNfsClient().Mount("/stolen").has_value());
}

TEST_F(CManagementJudgesTest, AWrongPasswordAndAnUnknownNameAreRefused) {
  const texts_t wrong[] = {As("judge-admin", "ntlm", "connect", "wrong"), As("judge-admin", "ntlm", "privacy", "wrong"),
                           As("unknown", "ntlm", "integrity")};
  // The last leg of raw NTLM has no answer, so the first call tells, even one that is for anyone.
  for (const texts_t& caller : wrong) {
    SCOPED_TRACE(testing::PrintToString(caller));
    EXPECT_THAT(Ask(Impacket, caller, FewCalls), ElementsAre("call refused: rpc_s_access_denied"));
    EXPECT_THAT(Ask(Samba, caller, FewCalls), ElementsAre(StartsWith("call refused: {Access Denied}")));
  }
  EXPECT_THAT(Ask(Samba, As("judge-admin", "negotiate", "privacy", "wrong"), FewCalls),
              ElementsAre(StartsWith("bind refused: The attempted logon is invalid.")));
  // A way to authenticate that is not served.
  EXPECT_THAT(Ask(Impacket, As("judge-admin", "netlogon", "privacy"), FewCalls),
              ElementsAre("bind refused: DCERPC Runtime Error: code: 0x8 - Authentication type not recognized "));
}

TEST_F(CManagementJudgesTest, ANameIsTheAccountThatItSpells) {
  const auto as = [](const std::string& user, const std::string& domain) {
    return texts_t{"--auth", "ntlm",     "--level", "integrity",  "--user",
                   user,     "--domain", domain,    "--password", "secret"};
  };
  for (const char* const script : {Impacket, Samba}) {
    SCOPED_TRACE(script);
    EXPECT_EQ(Ask(script, as("Judge-Admin", "TEST"), FewCalls), FewForAdministrators);
    EXPECT_EQ(Ask(script, as("judge-admin", ""), FewCalls), FewForAdministrators);
    EXPECT_THAT(Ask(script, as("judge-admin", "OTHER"), FewCalls), ElementsAre(StartsWith("call refused: ")));
  }
  EXPECT_THAT(Ask(Impacket, as("", ""), FewCalls), ElementsAre("call refused: rpc_s_access_denied"));
}

TEST_F(CManagementJudgesTest, AChangedRequestIsRefused) {
  const texts_t calls{Command("CreateShare", Value("nfsFolderPath", "/changed"))};
  for (const char* const level : {"integrity", "privacy"}) {
    EXPECT_THAT(Ask(Impacket, With(As("root", "ntlm", level), {"--tamper"}), calls),
                ElementsAre("call refused: Unknown DCE RPC fault status code: 00000721"))
        << level;
  }
  EXPECT_FALSE(CNfsClient().Mount("/changed").has_value());
}

TEST_F(CManagementJudgesTest, ARequestMayNameAnObject) {
  EXPECT_EQ(Ask(Impacket, {"--object"}, FewCalls), FewForOthers);
  for (const char* const level : {"connect", "integrity", "privacy"})
    EXPECT_EQ(Ask(Impacket, With(As("root", "ntlm", level), {"--object", "--fragment", "30"}), FewCalls),
              FewForAdministrators)
        << level;
}

TEST_F(CManagementJudgesTest, AConnectionServesManyCalls) {
  texts_t calls;
  texts_t answers;
  for (int i = 0; i < 200; ++i) {
    const std::string name = "command" + std::to_string(i);
    calls.push_back(Command(name));
    answers.push_back("0\t-\tUnknown command: '" + name + "'.");
  }
  for (const char* const script : {Impacket, Samba}) {
    for (const char* const level : {"connect", "integrity", "privacy"})
      EXPECT_EQ(Ask(script, As("root", "ntlm", level), calls), answers) << script << " " << level;
  }
}

TEST_F(CManagementJudgesTest, ManyFragmentsMakeARequestAndAResponse) {
  const std::string large(30000, 'x');
  const std::string small(500, 'y');
  const texts_t calls{"InvokerTestConnection\t" + large, Command(large), Command("short")};
  const texts_t answers{"1\t-", "0\t-\tUnknown command: '" + large + "'.", "0\t-\tUnknown command: 'short'."};
  for (const char* const level : {"connect", "integrity", "privacy"}) {
    SCOPED_TRACE(level);
    const texts_t caller = As("root", "ntlm", level);
    EXPECT_EQ(Ask(Impacket, caller, calls), answers);
    EXPECT_EQ(Ask(Impacket, With(caller, {"--fragment", "501"}), calls), answers);
    EXPECT_THAT(Ask(Impacket, With(caller, {"--fragment", "8"}), {"InvokerTestConnection\t" + small, Command(small)}),
                ElementsAre("1\t-", "0\t-\tUnknown command: '" + small + "'."));
    EXPECT_EQ(Ask(Samba, caller, calls), answers);
    EXPECT_EQ(Ask(Samba, As("root", "negotiate", level), calls), answers);
  }
  EXPECT_EQ(Ask(Raw, {"--big", "--fragment", "7"}, {calls[0]}), texts_t{"1\t-"});
}

TEST_F(CManagementJudgesTest, OneConnectionHasSeveralContexts) {
  const std::string other =
      "other interface refused: Bind context 1 rejected: provider_rejection; abstract_syntax_not_supported (this "
      "usually means the interface isn't listening on the given endpoint)";
  EXPECT_EQ(Ask(Impacket, {"--contexts"}, FewCalls), With({other}, FewForOthers));
  EXPECT_EQ(Ask(Samba, {"--contexts"}, FewCalls), FewForOthers);
  // This one authenticates anew with each context. No such thing was agreed, so what was there goes on.
  const std::string denied = "DCERPC Runtime Error: code: 0x5 - rpc_s_access_denied ";
  for (const char* const level : {"connect", "integrity", "privacy"}) {
    EXPECT_EQ(Ask(Impacket, With(As("root", "ntlm", level), {"--contexts"}), FewCalls),
              With({"other interface refused: " + denied, "further context refused: " + denied}, FewForAdministrators));
    EXPECT_EQ(Ask(Samba, With(As("root", "negotiate", level), {"--contexts"}), FewCalls), FewForAdministrators);
  }
}

TEST_F(CManagementJudgesTest, ALevelIsDemandedOfCommandsAlone) {
  service_.Stop();
  service_.SetValue("MinimumAuthLevel", "REG_DWORD", "6");
  service_.Start();
  for (const char* const script : {Impacket, Samba}) {
    EXPECT_EQ(Ask(script, As("root", "ntlm", "privacy"), FewCalls), FewForAdministrators);
    for (const char* const level : {"connect", "integrity"})
      EXPECT_THAT(
          Ask(script, As("root", "ntlm", level), FewCalls),
          ElementsAre(FewForAdministrators[0], FewForAdministrators[1],
                      testing::AnyOf("call refused: rpc_s_access_denied", StartsWith("call refused: {Access Denied}"))))
          << level;
  }
}

}  // namespace
