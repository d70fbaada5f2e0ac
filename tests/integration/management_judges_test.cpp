// The management endpoint under clients that were written by others: impacket, Samba's libraries and tshark.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>

#include "integration/support/realm.h"
#include "integration/support/service.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
namespace fs = std::filesystem;

using texts_t = std::vector<std::string>;

constexpr const char* Impacket = "impacket_client.py";
constexpr const char* Samba = "samba_client.py";
constexpr const char* Raw = "raw_client.py";
constexpr const char* Loopback = "127.0.0.1";

/// What someone is told who is no administrator: in RpcResult.Message, with Success 0 and no output.
const std::string NotMember =
    "0\t-\tAccess is denied.\\nRPC client is not a member of built-in Administrators group.\\n"
    "Error code: 2147942405";

/// The calls that are for anyone, one that is not, and their answers.
const texts_t FewCalls{"InvokerTestConnection\thello", "DoRpcWithBinary\tname\targuments\t00ff41",
                       "DoRpc\tGetNfsDatastoreSizes\t<InputArguments/>"};
const texts_t FewForAdministrators{"1\t-", "1\t-\t-\t-", "0\t-\tUnknown command: 'GetNfsDatastoreSizes'."};
const texts_t FewForOthers{"1\t-", "1\t-\t-\t-", NotMember};

texts_t Lines(const std::string& text) {
  std::istringstream stream(text);
  texts_t lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

/// A value of a document, as it is written in either direction.
std::string Value(const std::string& name, const std::string& value) {
  return "<" + name + " value=\"" + value + "\" />";
}

std::string Command(const std::string& name, const std::string& arguments = {}) {
  return "DoRpc\t" + name + "\t<InputArguments>" + arguments + "</InputArguments>";
}

/// The line of a command that succeeds.
std::string Output(const std::string& values = {}) {
  return "1\t<OutputArguments" + (values.empty() ? " />" : ">" + values + "</OutputArguments>") + "\t-";
}

class CManagementJudgesTest : public testing::Test {
 protected:
  CManagementJudgesTest() {
    const std::string folder = service_.Environment().at("ALLUSERSPROFILE") + "/Kelvo";
    fs::create_directories(folder);
    WriteFile(folder + "/ntlm-users", "TEST:root:secret\nTEST:judge-admin:secret\nTEST:judge-other:secret\n");
    ::chmod((folder + "/ntlm-users").c_str(), 0600);
    WriteFile(judgeFolder_.Path() + "/smb.conf",
              "[global]\n  interfaces = 127.0.0.1/8\n  bind interfaces only = yes\n");
  }
  void SetUp() override { service_.Start(); }

  /// The lines that a client prints of a conversation.
  texts_t Ask(const std::string& script, const texts_t& options, const texts_t& calls,
              const std::string& host = Loopback) {
    texts_t command{"/usr/bin/python3", std::string(KELVO_JUDGES_DIR) + "/" + script, host};
    command.insert(command.end(), options.begin(), options.end());
    std::string input;
    for (const std::string& call : calls)
      input += call + "\n";
    const SResult result = RunProgram(
        command, {{"PYTHONDONTWRITEBYTECODE", "1"}, {"SMB_CONF_PATH", judgeFolder_.Path() + "/smb.conf"}}, input);
    EXPECT_EQ(result.exitCode, 0) << script << ": " << result.err;
    return Lines(result.out);
  }
  static texts_t As(const std::string& user, const std::string& auth, const std::string& level,
                    const std::string& password = "secret") {
    return {"--auth", auth, "--level", level, "--user", user, "--domain", "TEST", "--password", password};
  }
  static texts_t ByTicket(const std::string& auth, const std::string& level) {
    return {"--auth", auth, "--level", level};
  }
  static texts_t With(texts_t options, const texts_t& more) {
    options.insert(options.end(), more.begin(), more.end());
    return options;
  }

  CTestAccounts accounts_;
  CTempFolder judgeFolder_;
  CService service_;
};

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
        {Command("\xC3\xA4\xE2\x82\xAC"), "0\t-\tUnknown command: '\xC3\xA4\xE2\x82\xAC'."}};
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

/// Hexadecimal digits without the blanks between them.
std::string Hex(std::string digits) {
  std::erase(digits, ' ');
  return digits;
}

/// The hexadecimal form of a string with its end, as UTF-16.
std::string Wide(const std::string& text) {
  std::string hex;
  for (const char unit : text + '\0') {
    std::array<char, 5> pair{};
    std::snprintf(pair.data(), pair.size(), "%02x00", static_cast<unsigned char>(unit));
    hex += pair.data();
  }
  return hex;
}

const std::string TestAnswer = "response " + Hex("01000000 00000000");
const std::string BinaryAnswer = "response " + Hex("00000000 00000000 00000000 01000000 00000000");
/// No output, 0, and the message.
const std::string NotMemberAnswer =
    "response " + Hex("00000000 00000000 08000200 66000000 00000000 66000000") +
    Wide("Access is denied.\nRPC client is not a member of built-in Administrators group.\nError code: 2147942405");

/// What a client prints that shows stubs, of requests that anyone may send but the last.
texts_t ShownAnswers(const std::string& test, const std::string& binary, const std::string& rpc) {
  return {"request " + test, TestAnswer,      FewForOthers[0], "request " + binary, BinaryAnswer, FewForOthers[1],
          "request " + rpc,  NotMemberAnswer, NotMember};
}

TEST_F(CManagementJudgesTest, StubsAreTheSameByteForByte) {
  // As the encoder of impacket makes them; it fills gaps with what it likes.
  const std::string test = Hex("04000000 00000000 04000000 610062006300 0000");
  const std::string binary =
      Hex("02000000 00000000 02000000 78000000 03000000 00000000 03000000 790079000000 bfbf"
          "03000000 03000000 414243");
  const std::string rpc = Hex("03000000 00000000 03000000 610062000000 abab 02000000 00000000 02000000 63000000");
  EXPECT_EQ(
      Ask(Impacket, {"--stubs"}, {"InvokerTestConnection\tabc", "DoRpcWithBinary\tx\tyy\t414243", "DoRpc\tab\tc"}),
      ShownAnswers(test, binary, rpc));
  EXPECT_EQ(Ask(Raw, {"--stubs"}, {"Stub\t2\t" + test, "Stub\t1\t" + binary, "Stub\t0\t" + rpc}),
            ShownAnswers(test, binary, rpc));
}

TEST_F(CManagementJudgesTest, StubsOfTheOtherOrderAreTakenByteForByte) {
  const std::string test = Hex("00000004 00000000 00000004 006100620063 0000");
  const std::string binary =
      Hex("00000002 00000000 00000002 00780000 00000003 00000000 00000003 007900790000 0000"
          "00000003 00000003 414243");
  const std::string rpc = Hex("00000003 00000000 00000003 006100620000 0000 00000002 00000000 00000002 00630000");
  EXPECT_EQ(Ask(Raw, {"--stubs", "--big"}, {"Stub\t2\t" + test, "Stub\t1\t" + binary, "Stub\t0\t" + rpc}),
            ShownAnswers(test, binary, rpc));
}

TEST_F(CManagementJudgesTest, AStubThatIsWrongIsAFault) {
  const std::string lyingCount = Hex("04000000 00000000 05000000 610062006300 0000");
  const std::string bigCount = Hex("00000004 00000000 00000004 006100620063 0000");
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t2\t" + lyingCount}), ElementsAre("call refused: fault 0x6f7"));
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t2\t" + bigCount}), ElementsAre("call refused: fault 0x6f7"));
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t0\t"}), ElementsAre("call refused: fault 0x6f7"));
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t3\t"}), ElementsAre("call refused: fault 0x1c010002"));
}

TEST_F(CManagementJudgesTest, TheStubOfAnOutputIsTheSameByteForByte) {
  const std::string name = "IInvokeDispatcher.IsSerialInvokerEnabled";
  const std::string output = "<OutputArguments><IsEnabled value=\"false\" /></OutputArguments>";
  const std::string failure = "Unknown command: 'x'.";
  const texts_t calls{"DoRpc\t" + name + "\t<InputArguments/>", "DoRpc\tx\t<InputArguments/>"};
  const std::string first =
      "response " + Hex("00000200 3f000000 00000000 3f000000") + Wide(output) + Hex("0000 01000000 00000000");
  const std::string second = "response " + Hex("00000000 00000000 08000200 16000000 00000000 16000000") + Wide(failure);
  const texts_t administrator = With(As("root", "ntlm", "connect"), {"--stubs"});
  for (const char* const script : {Impacket, Samba}) {
    EXPECT_THAT(Ask(script, administrator, calls),
                ElementsAre(StartsWith("request 29000000"), first, "1\t" + output + "\t-",
                            StartsWith("request 02000000"), second, "0\t-\t" + failure));
  }
  // The socket of this machine, where the caller is known by his process.
  const std::string path = service_.Environment().at("KELVO_RUNTIME_DIR") + "/management";
  EXPECT_THAT(Ask(Raw, {"--stubs", "--big"}, calls, path),
              ElementsAre(StartsWith("request 00000029"), first, "1\t" + output + "\t-", StartsWith("request 00000002"),
                          second, "0\t-\t" + failure));
}

class CManagementKerberosTest : public CManagementJudgesTest {
 protected:
  void SetUp() override {
    realm_.Add("judge-admin", "secret");
    realm_.Add("judge-other", "other");
    CManagementJudgesTest::SetUp();
  }
  SResult Ctl(const texts_t& options) {
    texts_t command{Program("kelvo-nfsctl"), "--endpoint", std::string("tcp:") + RealmHost + ":6161"};
    command.insert(command.end(), options.begin(), options.end());
    return RunProgram(command, service_.Environment());
  }

  CRealm realm_;
};

TEST_F(CManagementKerberosTest, AnAdministratorIsKnownByHisTicket) {
  realm_.LogIn("judge-admin", "secret");
  for (const char* const level : {"connect", "packet", "integrity", "privacy"}) {
    for (const char* const auth : {"kerberos", "negotiate"}) {
      SCOPED_TRACE(std::string(auth) + " " + level);
      EXPECT_EQ(Ask(Samba, ByTicket(auth, level), FewCalls, RealmHost), FewForAdministrators);
      EXPECT_EQ(Ask(Samba, With(ByTicket(auth, level), {"--big"}), FewCalls, RealmHost), FewForAdministrators);
      const SResult result = Ctl({"--auth", auth, "--level", level, "share", "show", "/share"});
      EXPECT_EQ(result.exitCode, 0) << result.err;
      EXPECT_THAT(result.out, HasSubstr("  /share\n"));
    }
  }
}

TEST_F(CManagementKerberosTest, ImpacketNegotiatesByTicket) {
  realm_.LogIn("judge-admin", "secret");
  // Its signatures alone fail in its own code, so there is no level between.
  for (const char* const level : {"connect", "privacy"})
    EXPECT_EQ(Ask(Impacket, ByTicket("negotiate", level), FewCalls, RealmHost), FewForAdministrators) << level;
  const std::string large(30000, 'x');
  EXPECT_THAT(Ask(Impacket, With(ByTicket("negotiate", "privacy"), {"--fragment", "500"}),
                  {"InvokerTestConnection\t" + large, Command(large)}, RealmHost),
              ElementsAre("1\t-", "0\t-\tUnknown command: '" + large + "'."));
}

TEST_F(CManagementKerberosTest, ManyFragmentsAreProtectedByTicket) {
  realm_.LogIn("judge-admin", "secret");
  const std::string large(30000, 'x');
  for (const char* const auth : {"kerberos", "negotiate"}) {
    for (const char* const level : {"integrity", "privacy"}) {
      SCOPED_TRACE(std::string(auth) + " " + level);
      EXPECT_THAT(Ask(Samba, ByTicket(auth, level), {"InvokerTestConnection\t" + large, Command(large), Command("x")},
                      RealmHost),
                  ElementsAre("1\t-", "0\t-\tUnknown command: '" + large + "'.", "0\t-\tUnknown command: 'x'."));
    }
  }
}

TEST_F(CManagementKerberosTest, ATicketOfSomeoneElseManagesNothing) {
  realm_.LogIn("judge-other", "other");
  const texts_t calls = With(FewCalls, {Command("CreateShare", Value("nfsFolderPath", "/stolen"))});
  const texts_t answers = With(FewForOthers, {NotMember});
  EXPECT_EQ(Ask(Impacket, ByTicket("negotiate", "privacy"), calls, RealmHost), answers);
  EXPECT_EQ(Ask(Samba, ByTicket("negotiate", "privacy"), calls, RealmHost), answers);
  EXPECT_EQ(Ask(Samba, ByTicket("kerberos", "integrity"), calls, RealmHost), answers);
  const SResult result = Ctl({"share", "create", "/stolen"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("RPC client is not a member of built-in Administrators group."));
  EXPECT_FALSE(CNfsClient().Mount("/stolen").has_value());
}

TEST_F(CManagementKerberosTest, WithoutATicketNothingIsManaged) {
  realm_.LogIn("judge-admin", "secret");
  realm_.LogOut();
  const SResult result = Ctl({"--auth", "kerberos", "locks"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("get a Kerberos ticket with kinit first"));
}

/// The values of a field that tshark shows.
std::set<std::string> Seen(texts_t tshark, const std::string& field) {
  tshark.insert(tshark.end(), {"-Y", field, "-T", "fields", "-e", field});
  std::set<std::string> seen;
  for (const std::string& line : Lines(RunProgram(tshark).out)) {
    std::istringstream values(line);
    for (std::string value; std::getline(values, value, ',');)
      seen.insert(value);
  }
  return seen;
}

TEST_F(CManagementJudgesTest, TsharkDecodesEveryConversation) {
  CTempFolder folder;
  const std::string capture = folder.Path() + "/capture.pcap";
  CProcess dumpcap({"dumpcap", "-q", "-i", "lo", "-w", capture, "-P"}, {});
  // The file header stands when the capture runs.
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(capture) && fs::file_size(capture) >= 24; }));

  const texts_t calls = With(FewCalls, {Command(std::string(10000, 'x'))});
  Ask(Impacket, {"--contexts"}, calls);
  for (const char* const level : {"connect", "integrity", "privacy"})
    Ask(Impacket, With(As("root", "ntlm", level), {"--fragment", "500"}), calls);
  Ask(Samba, As("root", "ntlm", "integrity"), calls);
  Ask(Samba, As("root", "negotiate", "privacy"), calls);
  Ask(Samba, As("root", "negotiate", "privacy", "wrong"), calls);
  Ask(Impacket, As("root", "netlogon", "privacy"), calls);
  Ask(Raw, {"--big"}, calls);
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t3\t"}), ElementsAre("call refused: fault 0x1c010002"));

  const texts_t tshark{"tshark", "-r", capture, "-d", "tcp.port==6161,dcerpc"};
  const auto decode = [&](const std::string& filter) {
    return RunProgram(With(tshark, {"-Y", filter, "-T", "fields", "-e", "frame.number", "-e", "_ws.col.Info", "-e",
                                    "_ws.expert.message"}));
  };
  const auto expectNone = [&](const std::string& filter) {
    const SResult result = decode(filter);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "");
  };
  // All is captured when the last answer is.
  EXPECT_TRUE(WaitUntil([&] { return !decode("dcerpc.cn_status == 0x1c010002").out.empty(); }));
  dumpcap.Signal(SIGINT);
  dumpcap.WaitForExit();

  expectNone("dcerpc && (_ws.malformed || _ws.unreassembled || _ws.expert.severity == 8388608)");
  // What the kernel sent twice is shown once.
  expectNone("tcp.port == 6161 && tcp.len > 0 && !dcerpc && !tcp.reassembled_in && !tcp.analysis.flags");
  // PDUs of every kind, of both orders, of every protection that these clients know.
  const std::map<std::string, texts_t> wanted{{"dcerpc.pkt_type", {"0", "2", "3", "11", "12", "13", "14", "15", "16"}},
                                              {"dcerpc.drep.byteorder", {"0", "1"}},
                                              {"dcerpc.auth_type", {"9", "10"}},
                                              {"dcerpc.auth_level", {"2", "5", "6"}},
                                              {"dcerpc.cn_bind_to_uuid", {"d1c2c07a-d989-48cc-a423-b73ecd518d40"}},
                                              {"dcerpc.opnum", {"0", "1", "2"}},
                                              {"dcerpc.cn_status", {"0x00000005", "0x1c010002"}},
                                              {"ntlmssp.messagetype", {"0x00000001", "0x00000002", "0x00000003"}}};
  for (const auto& [field, values] : wanted)
    EXPECT_THAT(Seen(tshark, field), testing::IsSupersetOf(values)) << field;
}

}  // namespace
