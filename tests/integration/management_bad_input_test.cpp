// What a hostile or broken caller sends to the management endpoint: it costs that caller its call or its connection,
// and nobody else anything.
#include <poll.h>

#include <vector>

#include "integration/support/management_fixture.h"

namespace {

using namespace test;
using testing::HasSubstr;

class ManagementBadInputTest : public CManagementAttackTest {};

constexpr std::uint32_t BadStubData = 0x6f7;
constexpr std::uint32_t OperationRange = 0x1c010002;
constexpr std::uint32_t NoMemory = 0x1c00001b;

/// A command that a stub which lost its end must not run: it would be seen in the settings.
bytes_t AddHostStub() {
  return DoRpcStub(u"AddEsxHostAddr", Input("<allowedHostAddr value=\"10.9.9.9\"/>"));
}

TEST_F(ManagementBadInputTest, ABindCutAtEveryLength) {
  const bytes_t bind = DcePdu(dce_pdu_t::Bind, WholeRequest, BindBody());
  for (const bool isLocal : {true, false}) {
    for (std::size_t length = 0; length < bind.size(); ++length) {
      const auto connection = isLocal ? Local() : std::make_unique<CDceConnection>();
      connection->Send(bind.substr(0, length));
      connection->EndSending();
      EXPECT_EQ(connection->Receive(), std::nullopt) << length;
    }
  }
}

TEST_F(ManagementBadInputTest, ABindThatIsShorterThanItShouldBe) {
  const bytes_t body = BindBody();
  for (std::size_t length = 0; length < body.size(); ++length) {
    CDceConnection connection;
    connection.Send(DcePdu(dce_pdu_t::Bind, WholeRequest, body.substr(0, length)));
    const std::optional<bytes_t> answer = connection.Receive();
    EXPECT_TRUE(!answer || static_cast<dce_pdu_t>(answer->at(2)) == dce_pdu_t::Fault) << length;
    EXPECT_TRUE(connection.IsEnded()) << length;
  }
}

TEST_F(ManagementBadInputTest, ARequestCutAtEveryLength) {
  const bytes_t request = DcePdu(dce_pdu_t::Request, WholeRequest, RequestBody(DoRpcOpnum, AddHostStub()));
  for (std::size_t length = 0; length < request.size(); ++length) {
    const auto connection = Local();
    connection->Bind().Send(request.substr(0, length));
    connection->EndSending();
    EXPECT_EQ(connection->Receive(), std::nullopt) << length;
  }
}

TEST_F(ManagementBadInputTest, ARequestThatIsShorterThanItShouldBe) {
  const bytes_t body = RequestBody(DoRpcOpnum, AddHostStub());
  for (std::size_t length = 0; length < body.size(); ++length) {
    const auto connection = Local();
    connection->Bind().Send(DcePdu(dce_pdu_t::Request, WholeRequest, body.substr(0, length)));
    const std::optional<SDceAnswer> answer = connection->Answer();
    EXPECT_TRUE(!answer || answer->type == dce_pdu_t::Fault) << length;
  }
}

TEST_F(ManagementBadInputTest, AWholeRequestIsServed) {
  // The counterpart of the cut ones.
  changesSettings_ = true;
  const auto connection = Local();
  connection->Bind().Send(DcePdu(dce_pdu_t::Request, WholeRequest, RequestBody(DoRpcOpnum, AddHostStub())));
  const std::optional<SDceAnswer> answer = connection->Answer();
  ASSERT_TRUE(answer);
  EXPECT_TRUE(ParseRpcResult(answer->stub).success);
  EXPECT_THAT(Settings(), HasSubstr("10.9.9.9"));
}

TEST_F(ManagementBadInputTest, FragmentLengthsThatLie) {
  const bytes_t stub = AddHostStub();
  const bytes_t body = RequestBody(DoRpcOpnum, stub);
  const auto whole = static_cast<std::uint32_t>(16 + body.size());
  for (const std::uint32_t length : {0U, 1U, 15U, 16U, 23U, whole - 2, whole + 1, 65535U}) {
    const auto connection = Local();
    connection->Bind().Send(DcePdu(dce_pdu_t::Request, WholeRequest, body, length));
    connection->EndSending();
    const std::optional<SDceAnswer> answer = connection->Answer();
    EXPECT_TRUE(!answer || answer->type == dce_pdu_t::Fault) << length;
    EXPECT_TRUE(connection->IsEnded()) << length;
  }
  for (const std::uint32_t length : {0U, 15U, 17U, 65535U}) {
    CDceConnection connection;
    connection.Send(DcePdu(dce_pdu_t::Bind, WholeRequest, BindBody(), length));
    connection.EndSending();
    EXPECT_TRUE(connection.IsEnded()) << length;
  }
}

TEST_F(ManagementBadInputTest, AFragmentLargerThanAnnouncedIsTakenAsItIs) {
  // 5840 bytes were agreed on; the length of a PDU goes to 65535.
  for (const std::size_t size : {std::size_t{5841}, std::size_t{65535}}) {
    const std::size_t room = size - 16 - 8 - NdrString(u"").size();
    CDceConnection connection;
    const bytes_t stub = NdrString(std::u16string(room / 2, u'x')) + bytes_t(room % 2, '\0');
    connection.Bind().Send(DcePdu(dce_pdu_t::Request, WholeRequest, RequestBody(PingOpnum, stub)));
    const std::optional<SDceAnswer> answer = connection.Answer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, dce_pdu_t::Response);
  }
}

TEST_F(ManagementBadInputTest, AuthenticationLengthsThatLie) {
  const bytes_t requestBody = RequestBody(DoRpcOpnum, AddHostStub());
  for (const std::uint32_t length : {1U, 8U, 200U, 0x7fffU, 0xffffU}) {
    CDceConnection bind;
    bind.Send(DcePdu(dce_pdu_t::Bind, WholeRequest, BindBody(), {}, length));
    const std::optional<bytes_t> answer = bind.Receive();
    EXPECT_TRUE(!answer || static_cast<dce_pdu_t>(answer->at(2)) != dce_pdu_t::BindAck) << length;
    EXPECT_TRUE(bind.IsEnded()) << length;
    const auto request = Local();
    request->Bind().Send(DcePdu(dce_pdu_t::Request, WholeRequest, requestBody, {}, length));
    request->EndSending();
    const std::optional<SDceAnswer> refusal = request->Answer();
    EXPECT_TRUE(!refusal || refusal->type == dce_pdu_t::Fault) << length;
  }
  // Padding that would begin before the body; an unknown type; a token of noise.
  for (const char type : {'\x00', '\x09', '\x0a', '\x10', '\x44', '\xff'}) {
    for (const char padding : {'\x00', '\xff'}) {
      CDceConnection bind;
      const bytes_t trailer = bytes_t{type, 6, padding, 0} + Le32(1) + bytes_t(40, 'n');
      bind.Send(DcePdu(dce_pdu_t::Bind, WholeRequest, BindBody() + trailer, {}, 40));
      const std::optional<bytes_t> answer = bind.Receive();
      EXPECT_TRUE(!answer || static_cast<dce_pdu_t>(answer->at(2)) != dce_pdu_t::BindAck);
      EXPECT_TRUE(bind.IsEnded());
    }
  }
}

TEST_F(ManagementBadInputTest, ARequestThatNeverEndsIsRefusedAtTheLimit) {
  // What all callers who proved nothing may hold together: each of these has all of it, so the one before gave it back.
  constexpr std::size_t Limit = std::size_t{64} << 20;
  // The allocator may keep what one of them held; three would be more than this.
  growthKiB_ = std::size_t{160} * 1024;
  const bytes_t part(5840 - 24, 'x');
  const bytes_t first = DcePdu(dce_pdu_t::Request, FirstFragment, RequestBody(PingOpnum, part));
  const bytes_t middle = DcePdu(dce_pdu_t::Request, 0, RequestBody(PingOpnum, part));
  for (int round = 0; round < 3; ++round) {
    CDceConnection connection;
    connection.Bind().Send(first);
    std::size_t sent = part.size();
    const auto isAnswered = [&] {
      pollfd entry{connection.Socket(), POLLIN, 0};
      return poll(&entry, 1, 0) > 0;
    };
    while (!isAnswered() && sent < 2 * Limit) {
      connection.Send(middle);
      sent += part.size();
    }
    EXPECT_GT(sent, Limit);
    const std::optional<SDceAnswer> answer = connection.Answer();
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->IsFault(NoMemory)) << answer->status;
    ServeGoodClients();
    // What still belongs to it is dropped, and its last fragment makes room for the next call.
    connection.Send(middle);
    connection.Send(DcePdu(dce_pdu_t::Request, LastFragment, RequestBody(PingOpnum, part)));
    connection.Send(Fragments(PingOpnum, NdrString(u"hello")));
    const std::optional<SDceAnswer> next = connection.Answer();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->type, dce_pdu_t::Response);
  }
}

TEST_F(ManagementBadInputTest, RequestsThatNeverEndHoldNobodyElseUp) {
  const bytes_t first =
      DcePdu(dce_pdu_t::Request, FirstFragment, RequestBody(DoRpcOpnum, AddHostStub().substr(0, 100)));
  std::vector<std::unique_ptr<CDceConnection>> connections;
  for (int i = 0; i < 200; ++i) {
    connections.push_back(i % 2 == 0 ? Local() : std::make_unique<CDceConnection>());
    connections.back()->Bind().Send(first);
  }
  ServeGoodClients();
}

TEST_F(ManagementBadInputTest, StringsWithLyingCountsAreFaultsOfTheirCalls) {
  const std::u16string name = u"AddEsxHostAddr";
  const std::u16string arguments = Input("<allowedHostAddr value=\"10.9.9.9\"/>");
  const auto units = static_cast<std::uint32_t>(arguments.size() + 1);
  const bytes_t begin = PadTo4(NdrString(name));
  const std::vector<bytes_t> stubs{
      begin + NdrString(arguments, units - 1),             // More than the array holds.
      begin + NdrString(arguments, {}, 1),                 // Not from its beginning.
      begin + NdrString(arguments, {}, 0xffffffff),        //
      begin + NdrString(arguments, units, {}, 0),          // Not even a terminator.
      begin + NdrString(arguments, units, {}, units - 1),  // Ends before its terminator.
      begin + NdrString(arguments, units + 1, {}, units + 1),
      begin + NdrString(arguments, 0x7fffffff, {}, 0x7fffffff),
      begin + NdrString(arguments, 0x80000000, {}, 0x80000000),
      begin + NdrString(arguments, 0x80000001, {}, 0x80000001),
      begin + NdrString(arguments, 0xffffffff, {}, 0xffffffff),
      begin + NdrString(arguments, 0, 0, 0),
      begin + NdrString(arguments, {}, {}, {}, false),
      begin,
      PadTo4(NdrString(name, {}, {}, {}, false)) + NdrString(arguments),
      PadTo4(NdrString(name, 0xffffffff, {}, 0xffffffff)) + NdrString(arguments),
      PadTo4(NdrString(name, {}, {}, 0)) + NdrString(arguments),
      {},
  };
  const auto connection = Local();
  connection->Bind();
  for (std::size_t i = 0; i < stubs.size(); ++i) {
    connection->Send(Fragments(DoRpcOpnum, stubs[i]));
    const std::optional<SDceAnswer> answer = connection->Answer();
    ASSERT_TRUE(answer) << i;
    EXPECT_TRUE(answer->IsFault(BadStubData)) << i << ": " << answer->status;
    // The same connection goes on.
    EXPECT_TRUE(connection->DoRpc(u"GetNfsDatastoreSize", u"<InputArguments/>").success) << i;
  }
  // A capacity that is larger than the text is no lie.
  connection->Send(
      Fragments(DoRpcOpnum, PadTo4(NdrString(u"GetParams")) + NdrString(u"<InputArguments/>", 0xffffffff)));
  EXPECT_TRUE(ParseRpcResult(connection->Answer().value().stub).success);
}

TEST_F(ManagementBadInputTest, ArraysWithLyingLengthsAndUnknownOperationsAreFaults) {
  CDceConnection connection;
  connection.Bind();
  const bytes_t texts = PadTo4(PadTo4(NdrString(u"name")) + NdrString(u"arguments"));
  for (const auto& [length, size] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
           {3, 4}, {4, 3}, {4, 4}, {0xffffffff, 0xffffffff}, {0xffffffff, 3}, {3, 0xffffffff}, {0, 3}}) {
    connection.Send(Fragments(WithBinaryOpnum, texts + Le32(length) + Le32(size) + "abc"));
    const std::optional<SDceAnswer> answer = connection.Answer();
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->IsFault(BadStubData)) << length << ' ' << size;
  }
  for (const std::uint16_t operation : {std::uint16_t{3}, std::uint16_t{0x7fff}, std::uint16_t{0xffff}}) {
    connection.Send(Fragments(operation, NdrString(u"")));
    const std::optional<SDceAnswer> answer = connection.Answer();
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->IsFault(OperationRange)) << operation;
  }
}

TEST_F(ManagementBadInputTest, ThirteenHundredCallersAtOnceAreAllAnswered) {
  constexpr int Callers = 1300;
  std::vector<std::unique_ptr<CDceConnection>> connections;
  for (int i = 0; i < Callers; ++i) {
    connections.push_back(Local());
    connections.back()->Bind();
  }
  EXPECT_GE(Footprint().threads, before_.threads + Callers);
  const bytes_t request = Fragments(DoRpcOpnum, DoRpcStub(u"GetParams", u"<InputArguments/>"));
  for (const auto& connection : connections)
    EXPECT_TRUE(connection->Send(request));
  for (const auto& connection : connections) {
    const std::optional<SDceAnswer> answer = connection->Answer();
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->type, dce_pdu_t::Response);
    EXPECT_TRUE(ParseRpcResult(answer->stub).success);
  }
}

TEST_F(ManagementBadInputTest, ACallerOfOneByteATimeIsAnsweredBesideOthers) {
  CDceConnection connection;
  const auto sendSlowly = [&](const bytes_t& bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      EXPECT_TRUE(connection.Send(bytes.substr(i, 1)));
      if (i == bytes.size() / 2)
        ServeGoodClients();
    }
  };
  sendSlowly(DcePdu(dce_pdu_t::Bind, WholeRequest, BindBody()));
  ASSERT_TRUE(connection.Receive());
  sendSlowly(Fragments(PingOpnum, NdrString(u"hello")));
  const std::optional<SDceAnswer> answer = connection.Answer();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->type, dce_pdu_t::Response);
}

TEST_F(ManagementBadInputTest, CallersWhoNeverReadHoldNobodyElseUp) {
  constexpr std::size_t Callers = 20;
  // The callers of one round leave the allocator with about half of it; the next ones add nothing.
  growthKiB_ = std::size_t{128} * 1024;
  // Its name comes back with the refusal, and is more than a socket holds.
  const bytes_t request =
      Fragments(DoRpcOpnum, DoRpcStub(std::u16string(std::size_t{1} << 20, u'x'), u"<InputArguments/>"));
  for (int round = 0; round < 3; ++round) {
    std::vector<std::unique_ptr<CDceConnection>> connections;
    for (std::size_t i = 0; i < Callers; ++i) {
      connections.push_back(Local());
      connections.back()->Bind();
      EXPECT_TRUE(connections.back()->Send(request));
    }
    // Each has the beginning of its answer.
    for (const auto& connection : connections) {
      pollfd entry{connection->Socket(), POLLIN, 0};
      EXPECT_EQ(poll(&entry, 1, 60000), 1);
    }
    ServeGoodClients();
    EXPECT_GE(Footprint().threads, before_.threads + Callers);
  }
}

}  // namespace
