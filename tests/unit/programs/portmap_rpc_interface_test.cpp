#include "programs/portmap_rpc_interface.h"

#include "programs/ep_mapper_table.h"
#include "unit/programs/program_test.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

class PortmapProgram : public test::CProgramTest {
 protected:
  PortmapProgram() : CProgramTest(DispatchPortmapCall, 100000, 2) {
    // The table is the process's own: begin with nothing in it.
    for (const PortmapRecord& row : CEpMapperTable::Instance().Dump())
      CEpMapperTable::Instance().Remove(row);
    CEpMapperTable::Instance().Seed();
  }

  std::vector<std::uint32_t> Ask(std::uint32_t procedure, const PortmapRecord& record, bool isClientAllowed = true) {
    return Call(procedure, test::BytesOf(record), isClientAllowed);
  }
};

TEST_F(PortmapProgram, NullIsPlainSuccessForEveryone) {
  EXPECT_EQ(Call(0), Accepted());
  EXPECT_EQ(Call(0, {}, false), Accepted());
}

TEST_F(PortmapProgram, RefusedPeerGetsThirteenForTheRest) {
  for (std::uint32_t procedure = 1; procedure <= 6; ++procedure) {
    EXPECT_EQ(Ask(procedure, {1, 1, 6, 1}, false), Accepted({13})) << procedure;
  }
  EXPECT_EQ(CEpMapperTable::Instance().Lookup({1, 1, 6, 0}), 0U);
}

TEST_F(PortmapProgram, SetKeepsTheFirstPort) {
  EXPECT_EQ(Ask(1, {100003, 3, 6, 3049}), Accepted({1}));
  EXPECT_EQ(Ask(1, {100003, 3, 6, 2049}), Accepted({0}));
  EXPECT_EQ(Ask(3, {100003, 3, 6, 0}), Accepted({3049}));
}

TEST_F(PortmapProgram, UnsetTakesEveryProtocol) {
  Ask(1, {100003, 3, 6, 2049});
  Ask(1, {100003, 3, 17, 2049});
  EXPECT_EQ(Ask(2, {100003, 3, 6, 0}), Accepted({1}));
  EXPECT_EQ(Ask(2, {100003, 3, 6, 0}), Accepted({0}));
  EXPECT_EQ(Ask(3, {100003, 3, 17, 0}), Accepted({0}));
}

TEST_F(PortmapProgram, KnowsItselfAndNotMountOverUdp) {
  Ask(1, {100005, 3, 6, 1058});
  EXPECT_EQ(Ask(3, {100000, 2, 17, 0}), Accepted({111}));
  EXPECT_EQ(Ask(3, {100005, 3, 6, 0}), Accepted({1058}));
  EXPECT_EQ(Ask(3, {100005, 3, 17, 0}), Accepted({0}));
}

TEST_F(PortmapProgram, DumpBeginsWithItsOwnRows) {
  EXPECT_EQ(Call(4), Accepted({1, 100000, 2, 6, 111, 1, 100000, 2, 17, 111, 0}));
  Ask(1, {100003, 3, 6, 2049});
  EXPECT_EQ(Call(4), Accepted({1, 100000, 2, 6, 111, 1, 100000, 2, 17, 111, 1, 100003, 3, 6, 2049, 0}));
}

TEST_F(PortmapProgram, IndirectCallsAreRefusedUnread) {
  EXPECT_EQ(Call(5), Unavailable());
  EXPECT_EQ(Call(5, test::Words({0xFFFFFFFF})), Unavailable());
}

TEST_F(PortmapProgram, UnknownProcedureIsRefused) {
  EXPECT_EQ(Call(6), Unavailable());
  EXPECT_EQ(Call(0xFFFFFFFF), Unavailable());
}

TEST_F(PortmapProgram, CutCallsAreNotAnswered) {
  const auto arguments = test::BytesOf(PortmapRecord{7, 7, 6, 7});
  for (std::uint32_t procedure = 1; procedure <= 3; ++procedure)
    CheckCuts(procedure, arguments);
  EXPECT_EQ(CEpMapperTable::Instance().Dump().size(), 2U);
}

TEST_F(PortmapProgram, HeaderThatDoesNotFitIsRefusedUnderItsXid) {
  const RpcCallHeader good = header_;
  header_.program = 100003;
  EXPECT_EQ(Call(0), Unavailable());
  header_ = good;
  header_.programVersion = 3;
  EXPECT_EQ(Call(0), Unavailable());
  header_ = good;
  header_.rpcVersion = 3;
  EXPECT_EQ(Call(0), Unavailable());
}

TEST_F(PortmapProgram, ReplyTypeMessageIsExecuted) {
  header_.messageType = 1;
  EXPECT_EQ(Ask(3, {100000, 2, 6, 0}), Accepted({111}));
}

TEST_F(PortmapProgram, LogsWhatIsSetUnsetAndLookedUp) {
  const test::CapturedLog log;
  Ask(1, {100003, 3, 6, 2049});
  Ask(1, {100003, 3, 6, 3049});
  Ask(3, {100003, 3, 6, 0});
  Ask(2, {100003, 3, 6, 0});
  Ask(2, {100003, 3, 6, 0});
  Ask(3, {100003, 3, 6, 0});
  // The threads of the file system tell when they start, which may be now.
  std::vector<std::string> texts = log.Texts();
  std::erase_if(texts, [](const std::string& text) { return text.find("hread started") != std::string::npos; });
  EXPECT_THAT(texts, ElementsAre("[EpMapper] Registering program: [100003]. Version: [3], Protocol: [6], Port: [2049]",
                                 "[EpMapper] Registering program: [100003]. Version: [3], Protocol: [6], Port: [3049]",
                                 "[EpMapper] Failed to register program.", "Return port number: [2049].",
                                 "Program removed.", "Cannot remove program.", "Return port number: [0]."));
}

TEST_F(PortmapProgram, TracesEveryProcedure) {
  const test::CapturedLog log(true);
  for (std::uint32_t procedure = 0; procedure <= 6; ++procedure)
    Ask(procedure, {7, 8, 9, 10});
  const std::vector<std::string> expected = {
      "=== PMAPPROC_NULL ============ :", "=== PMAPPROC_SET ============= :",
      "=== PMAPPROC_UNSET =========== :", "=== PMAPPROC_GETPORT ========= : prog: 7, vers: 8, prot: 9, port: 10",
      "=== PMAPPROC_DUMP ============ :", "=== PMAPPROC_CALLIT =======UN= :"};
  EXPECT_EQ(Traced(log), expected);
  EXPECT_THAT(log.Texts("Warning"), ElementsAre("Procedure not found: [6]."));
}

TEST_F(PortmapProgram, InterfaceAnswersAsTheFunction) {
  CXDRReader reader = test::ReaderOf(CallBytes(3, test::BytesOf(PortmapRecord{100000, 2, 6, 0})));
  CXDRWriter writer;
  CPortmapRpcInterface().ProcessCall(true, peer_, reader, writer, *fs_);
  EXPECT_EQ(test::WordsOf(test::MessageOf(writer)), Accepted({111}));
}

}  // namespace
