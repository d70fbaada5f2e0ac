// What the management endpoint and clients that were written by others send each other, byte for byte and as tshark
// sees it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "integration/support/judges.h"

namespace {

using namespace test;
using testing::ElementsAre;
using testing::StartsWith;
namespace fs = std::filesystem;

class CManagementBytesTest : public CJudgesTest {};

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

TEST_F(CManagementBytesTest, StubsAreTheSameByteForByte) {
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

TEST_F(CManagementBytesTest, StubsOfTheOtherOrderAreTakenByteForByte) {
  const std::string test = Hex("00000004 00000000 00000004 006100620063 0000");
  const std::string binary =
      Hex("00000002 00000000 00000002 00780000 00000003 00000000 00000003 007900790000 0000"
          "00000003 00000003 414243");
  const std::string rpc = Hex("00000003 00000000 00000003 006100620000 0000 00000002 00000000 00000002 00630000");
  EXPECT_EQ(Ask(Raw, {"--stubs", "--big"}, {"Stub\t2\t" + test, "Stub\t1\t" + binary, "Stub\t0\t" + rpc}),
            ShownAnswers(test, binary, rpc));
}

TEST_F(CManagementBytesTest, AStubThatIsWrongIsAFault) {
  const std::string lyingCount = Hex("04000000 00000000 05000000 610062006300 0000");
  const std::string bigCount = Hex("00000004 00000000 00000004 006100620063 0000");
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t2\t" + lyingCount}), ElementsAre("call refused: fault 0x6f7"));
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t2\t" + bigCount}), ElementsAre("call refused: fault 0x6f7"));
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t0\t"}), ElementsAre("call refused: fault 0x6f7"));
  EXPECT_THAT(Ask(Raw, {}, {"Stub\t3\t"}), ElementsAre("call refused: fault 0x1c010002"));
}

TEST_F(CManagementBytesTest, TheStubOfAnOutputIsTheSameByteForByte) {
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

TEST_F(CManagementBytesTest, TsharkDecodesEveryConversation) {
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
