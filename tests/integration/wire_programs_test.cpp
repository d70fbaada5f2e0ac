// The RPC layer, portmapper and MOUNT over the wire.
#include "integration/support/wire_fixture.h"

namespace {

using namespace test;

class ProgramsTest : public CWireTest {
 protected:
  static std::vector<std::vector<std::uint32_t>> Dump() {
    CConnection portmap(111);
    CDecoder decoder(portmap.Call(PortmapProgram, 4).body);
    std::vector<std::vector<std::uint32_t>> rows;
    while (decoder.U32() != 0)
      rows.push_back({decoder.U32(), decoder.U32(), decoder.U32(), decoder.U32()});
    EXPECT_TRUE(decoder.AtEnd());
    return rows;
  }
  static std::uint32_t Portmap(std::uint32_t procedure, std::uint32_t program, std::uint32_t version,
                               std::uint32_t protocol, std::uint32_t port) {
    CConnection portmap(111);
    const SReply reply =
        portmap.Call(PortmapProgram, procedure, CEncoder().U32(program).U32(version).U32(protocol).U32(port));
    EXPECT_TRUE(reply.IsSuccess());
    EXPECT_EQ(reply.body.size(), 4U);
    return CDecoder(reply.body).U32();
  }
};
KELVO_WIRE_SUITE(ProgramsTest);

TEST_P(ProgramsTest, ClientsFindThePortsThroughPort111) {
  EXPECT_EQ(GetPort(MountProgram), 1058U);
  EXPECT_EQ(GetPort(NfsProgram), 2049U);
  EXPECT_EQ(GetPort(PortmapProgram, 17, 2), 111U);
  EXPECT_EQ(GetPort(MountProgram, 17), 0U);
  EXPECT_EQ(GetPort(NfsProgram, 6, 4), 0U);
}

TEST_P(ProgramsTest, DumpShowsThePortmapperFirstAndThenTheService) {
  const auto rows = Dump();
  ASSERT_EQ(rows.size(), 4U);
  EXPECT_EQ(rows[0], (std::vector<std::uint32_t>{100000, 2, 6, 111}));
  EXPECT_EQ(rows[1], (std::vector<std::uint32_t>{100000, 2, 17, 111}));
  EXPECT_EQ(rows[2], (std::vector<std::uint32_t>{100005, 3, 6, 1058}));
  EXPECT_EQ(rows[3], (std::vector<std::uint32_t>{100003, 3, 6, 2049}));
}

TEST_P(ProgramsTest, SetKeepsTheFirstPortAndUnsetRemovesEveryProtocol) {
  EXPECT_EQ(Portmap(1, 300000, 1, 6, 4000), 1U);
  EXPECT_EQ(Portmap(1, 300000, 1, 6, 5000), 0U);
  EXPECT_EQ(Portmap(3, 300000, 1, 6, 0), 4000U);
  EXPECT_EQ(Portmap(1, 300000, 1, 17, 4001), 1U);
  EXPECT_EQ(Portmap(2, 300000, 1, 0, 0), 1U);
  EXPECT_EQ(Portmap(3, 300000, 1, 17, 0), 0U);
  EXPECT_EQ(Portmap(2, 300000, 1, 0, 0), 0U);
}

TEST_P(ProgramsTest, CallitIsRefusedUnread) {
  CConnection portmap(111);
  EXPECT_TRUE(portmap.Call(PortmapProgram, 5).IsUnavailable());
}

TEST_P(ProgramsTest, PortmapperAnswersOverUdp) {
  const bytes_t arguments = CEncoder().U32(NfsProgram).U32(3).U32(6).U32(0);
  const auto reply = CallUdp(111, CallMessage(77, PortmapProgram, 2, 3, arguments));
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->xid, 77U);
  EXPECT_TRUE(reply->IsSuccess());
  EXPECT_EQ(CDecoder(reply->body).U32(), 2049U);
}

TEST_P(ProgramsTest, ABrokenDatagramIsLostAloneAndTheNextIsServed) {
  EXPECT_FALSE(CallUdp(111, "abc", 200ms));
  EXPECT_FALSE(CallUdp(111, CallMessage(1, PortmapProgram, 2, 3, "short"), 200ms));
  const auto reply = CallUdp(111, CallMessage(78, PortmapProgram, 2, 0, {}));
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->IsSuccess());
}

TEST_P(ProgramsTest, MountGivesAHandleAndNoFlavours) {
  CConnection mount(1058);
  const SReply reply = mount.Call(MountProgram, 1, CEncoder().Opaque("/share"));
  ASSERT_TRUE(reply.IsSuccess());
  CDecoder decoder(reply.body);
  EXPECT_EQ(decoder.U32(), 0U);
  EXPECT_EQ(decoder.Opaque().size(), 23U);
  EXPECT_EQ(decoder.U32(), 0U);
  EXPECT_TRUE(decoder.AtEnd());
}

TEST_P(ProgramsTest, MountIgnoresCaseAndTheKindOfSeparator) {
  EXPECT_EQ(Client().Mount("/SHARE"), root_);
  EXPECT_EQ(Client().Mount("\\share"), root_);
  EXPECT_EQ(Client().Mount("share/"), root_);
}

TEST_P(ProgramsTest, MountOfAnUnknownPathIsTheWord2Alone) {
  CConnection mount(1058);
  for (const std::string& path : {std::string("/unknown"), std::string(), std::string("/share/sub"),
                                  std::string(65536, 'x'), std::string("/share\0x", 8)}) {
    const SReply reply = mount.Call(MountProgram, 1, CEncoder().Opaque(path));
    ASSERT_TRUE(reply.IsSuccess());
    EXPECT_EQ(reply.body, CEncoder().U32(2).Bytes());
  }
}

TEST_P(ProgramsTest, OtherMountProceduresHaveNoEffect) {
  CConnection mount(1058);
  EXPECT_TRUE(mount.Call(MountProgram, 0).IsSuccess());
  EXPECT_TRUE(mount.Call(MountProgram, 2).IsUnavailable());
  EXPECT_TRUE(mount.Call(MountProgram, 3, "junk").IsSuccess());
  EXPECT_TRUE(mount.Call(MountProgram, 4).IsSuccess());
  const SReply exports = mount.Call(MountProgram, 5);
  EXPECT_TRUE(exports.IsSuccess());
  EXPECT_EQ(exports.body, CEncoder().U32(0).Bytes());
  EXPECT_TRUE(mount.Call(MountProgram, 6).IsUnavailable());
}

TEST_P(ProgramsTest, ProceduresThatAreNotServedGetTheFiveWords) {
  for (const std::uint32_t procedure : {5U, 10U, 11U, 15U, 16U, 20U, 21U, 22U, 1000U, 0xFFFFFFFFU}) {
    EXPECT_TRUE(Client().Nfs().Call(NfsProgram, procedure).IsUnavailable()) << procedure;
  }
  EXPECT_TRUE(Client().Nfs().Call(NfsProgram, 0).IsSuccess());
}

TEST_P(ProgramsTest, AWrongProgramVersionOrRpcVersionGetsTheFiveWordsWithItsXid) {
  EXPECT_TRUE(Client().Nfs().Call(MountProgram, 0).IsUnavailable());
  EXPECT_TRUE(Client().Nfs().Call(NfsProgram, 0, {}, 2).IsUnavailable());
  CConnection connection(2049);
  connection.SendRecord(CallMessage(4711, NfsProgram, 3, 0, {}, 3));
  const SReply reply = ParseReply(connection.ReceiveRecord().value());
  EXPECT_EQ(reply.xid, 4711U);
  EXPECT_TRUE(reply.IsUnavailable());
}

TEST_P(ProgramsTest, TheMessageTypeIsNotLookedAtAndNoCredentialIs) {
  CConnection connection(2049);
  connection.SendRecord(CallMessage(1, NfsProgram, 3, 0, {}, 2, 1));
  EXPECT_TRUE(ParseReply(connection.ReceiveRecord().value()).IsSuccess());
  connection.SendRecord(CallMessage(2, NfsProgram, 3, 0, {}, 2, 0, bytes_t(400, 'c')));
  EXPECT_TRUE(ParseReply(connection.ReceiveRecord().value()).IsSuccess());
}

TEST_P(ProgramsTest, ARefusedPeerGetsNullAnsweredAndTheWord13ForAllElse) {
  const struct {
    std::uint16_t port;
    std::uint32_t program;
    std::uint32_t last;
  } programs[] = {{111, PortmapProgram, 5}, {1058, MountProgram, 5}, {2049, NfsProgram, 22}};
  for (const auto& [port, program, last] : programs) {
    CConnection connection(port, "127.0.0.2");
    EXPECT_TRUE(connection.Call(program, 0).IsSuccess());
    for (std::uint32_t procedure = 1; procedure <= last; ++procedure) {
      const SReply reply = connection.Call(program, procedure, CEncoder().Opaque(root_));
      EXPECT_TRUE(reply.IsSuccess());
      EXPECT_EQ(reply.body, CEncoder().U32(13).Bytes()) << program << " " << procedure;
    }
  }
}

TEST_P(ProgramsTest, ARefusedPeerReadsNothingEvenWithAHandle) {
  WriteFile(HostPath("secret"), "secret");
  const bytes_t handle = HandleOf("secret");
  CConnection connection(2049, "127.0.0.2");
  EXPECT_EQ(connection.Call(NfsProgram, test::Read, CEncoder().Opaque(handle).U64(0).U32(100)).body,
            CEncoder().U32(13).Bytes());
  EXPECT_EQ(connection.Call(NfsProgram, test::Write, CEncoder().Opaque(handle).U64(0).U32(1).U32(2).Opaque("x")).body,
            CEncoder().U32(13).Bytes());
  EXPECT_EQ(ReadFile(HostPath("secret")), "secret");
}

}  // namespace
