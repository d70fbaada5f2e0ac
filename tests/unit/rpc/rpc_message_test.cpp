#include "rpc/rpc_message.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "foundation/exc.h"
#include "support/captured_log.h"
#include "support/memory_rpc_stream.h"
#include "support/xdr_record.h"

using testing::Each;
using testing::ElementsAre;

namespace {

using bytes_t = std::vector<std::uint8_t>;

bytes_t Call(const RpcCallHeader& header, const bytes_t& credential = {}, const bytes_t& verifier = {}) {
  CXDRWriter writer;
  for (const std::uint32_t word :
       {header.xid, header.messageType, header.rpcVersion, header.program, header.programVersion, header.procedure}) {
    writer.UInt(word);
  }
  writer.UInt(1);
  writer.VarLenData(credential.data(), credential.size());
  writer.UInt(0);
  writer.VarLenData(verifier.data(), verifier.size());
  return test::MessageOf(writer);
}

TEST(RpcCallHeader, HoldsTheSixWords) {
  CXDRReader reader = test::ReaderOf(Call({11, 12, 13, 14, 15, 16}));
  RpcCallHeader header;
  ReadCallHeader(reader, header);
  EXPECT_EQ(header.xid, 11U);
  EXPECT_EQ(header.messageType, 12U);
  EXPECT_EQ(header.rpcVersion, 13U);
  EXPECT_EQ(header.program, 14U);
  EXPECT_EQ(header.programVersion, 15U);
  EXPECT_EQ(header.procedure, 16U);
  EXPECT_EQ(reader.Remaining(), 0U);
}

TEST(RpcCallHeader, SkipsCredentialsOfAnyLength) {
  CXDRReader reader = test::ReaderOf(Call({1, 0, 2, 3, 4, 5}, bytes_t(400, 0xCC), bytes_t(5, 0xDD)));
  RpcCallHeader header;
  ReadCallHeader(reader, header);
  EXPECT_EQ(header.procedure, 5U);
  EXPECT_EQ(reader.Remaining(), 0U);
}

TEST(RpcCallHeader, EveryCutThrows) {
  const bytes_t call = Call({1, 0, 2, 3, 4, 5}, bytes_t(7, 1), bytes_t(3, 1));
  for (std::size_t cut = 0; cut < call.size(); ++cut) {
    CXDRReader reader = test::ReaderOf(std::span(call).first(cut));
    RpcCallHeader header;
    EXPECT_THROW(ReadCallHeader(reader, header), exc::win_sys_exc_t) << cut;
  }
}

TEST(RpcCallHeader, CredentialThatClaimsMoreThanThereIsThrows) {
  for (const std::uint32_t length : {5U, 0x80000000U, 0xFFFFFFFCU, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
    CXDRReader reader = test::ReaderOf(test::Words({1, 0, 2, 3, 4, 5, 1, length, 0}));
    RpcCallHeader header;
    EXPECT_THROW(ReadCallHeader(reader, header), std::exception) << length;
  }
}

TEST(RpcCallHeader, ChecksProgramVersionAndRpcVersion) {
  EXPECT_TRUE(CheckCallHeader({1, 0, 2, 100003, 3, 99}, 100003, 3));
  EXPECT_TRUE(CheckCallHeader({1, 1, 2, 100003, 3, 0}, 100003, 3));
  EXPECT_FALSE(CheckCallHeader({1, 0, 2, 100005, 3, 0}, 100003, 3));
  EXPECT_FALSE(CheckCallHeader({1, 0, 2, 100003, 2, 0}, 100003, 3));
  EXPECT_FALSE(CheckCallHeader({1, 0, 3, 100003, 3, 0}, 100003, 3));
}

TEST(RpcCallHeader, WarnsOfTheFirstThatDoesNotFitAlone) {
  const test::CapturedLog log;
  CheckCallHeader({1, 0, 2, 100003, 3, 0}, 100003, 3);
  CheckCallHeader({1, 0, 7, 100005, 4, 0}, 100003, 3);
  CheckCallHeader({1, 0, 7, 100003, 4, 0}, 100003, 3);
  CheckCallHeader({1, 0, 7, 100003, 3, 0}, 100003, 3);
  const std::vector<test::CapturedLog::Line> expected = {{"Warning", "ERROR: Program [100005] not found."},
                                                         {"Warning", "ERROR: Wrong program version [4]."},
                                                         {"Warning", "ERROR: Wrong RPC version [7]."}};
  EXPECT_EQ(log.Lines(), expected);
}

/// One exchange with a portmapper that answers with these words.
class ForeignPortmap : public testing::Test {
 protected:
  void Exchange() {
    CXDRWriter request;
    request.PortmapCall(1);
    CallForeignPortmap(stream_, request, reader_, 17);
  }

  std::string FailureOf(std::initializer_list<std::uint32_t> reply) {
    stream_.AddReply(test::Words(reply));
    try {
      Exchange();
    } catch (const exc::runtime_exc_t& exception) {
      return exception.what();
    }
    return "";
  }

  test::CMemoryRpcStream stream_;
  CXDRReader reader_;
};

TEST_F(ForeignPortmap, ReaderStandsAtTheResultWhateverTheXid) {
  stream_.AddReply(test::Words({0xDEADBEEF, 1, 0, 0, 0, 0, 42}));
  Exchange();
  EXPECT_EQ(reader_.UInt(), 42U);
  EXPECT_EQ(reader_.Remaining(), 0U);
}

TEST_F(ForeignPortmap, SendsOneMarkedRecord) {
  stream_.AddReply(test::Words({1, 1, 0, 0, 0, 0, 1}));
  Exchange();
  const auto words = test::WordsOf(stream_.sent);
  ASSERT_EQ(words.size(), 11U);
  EXPECT_EQ(words[0], 0x80000000U | 40U);
  EXPECT_THAT(std::vector(words.begin() + 2, words.end()), ElementsAre(0, 2, 100000, 2, 1, 0, 0, 0, 0));
}

TEST_F(ForeignPortmap, EachWaitHasTheTimeout) {
  stream_.AddReply(test::Words({1, 1, 0, 0, 0, 0, 1}));
  Exchange();
  EXPECT_THAT(stream_.timeouts, Each(17U));
  EXPECT_EQ(stream_.timeouts.size(), 2U);
}

TEST_F(ForeignPortmap, SkipsTheVerifier) {
  stream_.AddReply(test::Words({1, 1, 0, 6, 5, 0x01020304, 0x05000000, 0, 77}));
  Exchange();
  EXPECT_EQ(reader_.UInt(), 77U);
}

TEST_F(ForeignPortmap, PartialPacketIsRefused) {
  stream_.AddReply(test::Words({1, 1, 0, 0, 0, 0, 1}), false);
  try {
    Exchange();
    FAIL();
  } catch (const exc::runtime_exc_t& exception) {
    EXPECT_STREQ(exception.what(), "Partial packet not implemented.");
  }
}

TEST_F(ForeignPortmap, TellsEveryRefusal) {
  EXPECT_EQ(FailureOf({1, 1, 0, 0, 0, 2, 3, 4}), "NFS program mismatch. Low: 3, High: 4");
  EXPECT_EQ(FailureOf({1, 1, 0, 0, 0, 1}), "Unknown accept status: 1");
  EXPECT_EQ(FailureOf({1, 1, 0, 0, 0, 5}), "Unknown accept status: 5");
  EXPECT_EQ(FailureOf({1, 1, 1, 0, 2, 2}), "NFS RCP mismatch. Low: 2, High: 2");
  EXPECT_EQ(FailureOf({1, 1, 1, 1, 7}), "Authentication error: 7");
  EXPECT_EQ(FailureOf({1, 1, 1, 2}), "Unknown reject status: 2");
  EXPECT_EQ(FailureOf({1, 1, 2}), "Unknown NFS reply state: 2");
}

TEST_F(ForeignPortmap, ShortReplyThrows) {
  for (std::size_t words = 0; words < 6; ++words) {
    test::CMemoryRpcStream stream;
    stream.AddReply(bytes_t(4 * words, 0));
    CXDRWriter request;
    request.PortmapCall(1);
    EXPECT_THROW(CallForeignPortmap(stream, request, reader_, 1), std::exception) << words;
  }
}

TEST_F(ForeignPortmap, AnnouncedLengthCostsNothingUntilItArrives) {
  stream_.toReceive = {0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3};
  EXPECT_THROW(Exchange(), exc::socket_timeout_exc_t);
  EXPECT_LE(stream_.largestRecv, 64U * 1024);
}

TEST_F(ForeignPortmap, LongReplyArrivesWhole) {
  bytes_t reply = test::Words({1, 1, 0, 0, 0, 0});
  reply.resize(300'000, 0x5A);
  stream_.AddReply(reply);
  Exchange();
  EXPECT_EQ(reader_.Remaining(), 300'000U - 24);
  EXPECT_EQ(reader_.UInt(), 0x5A5A5A5AU);
}

}  // namespace
