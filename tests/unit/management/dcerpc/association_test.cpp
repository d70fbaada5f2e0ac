#include "management/dcerpc/association.h"

#include <gtest/gtest.h>

#include "unit/management/dcerpc/association_fixture.h"
#include "unit/management/dcerpc/stub_bytes.h"

namespace dcerpc {
namespace {

using test::Bytes;
using test::ClientHeader;
using test::FakeInterface;

constexpr SSyntaxId Ndr64{
    {{0x71, 0x71, 0x05, 0x33, 0xbe, 0xba, 0x49, 0x37, 0x83, 0x19, 0xb5, 0xdb, 0xef, 0x9c, 0xcc, 0x36}}, 1};

/// A peer that knows both features.
constexpr SSyntaxId Features{
    {{0x6c, 0xb7, 0x1c, 0x2c, 0x98, 0x12, 0x45, 0x40, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}}, 1};

class CAssociationTest : public test::AssociationTest {
 protected:
  SBindAck BindWith(const SBind& bind) {
    EXPECT_TRUE(Give(EncodeBind(ClientHeader(pdu_type_t::Bind, 9), bind, std::nullopt)));
    const bytes_t answer = Answer();
    const SPdu pdu = ParsePdu(answer);
    EXPECT_EQ(pdu.header.type, pdu_type_t::BindAck);
    EXPECT_EQ(pdu.header.callId, 9U);
    return pdu.header.type == pdu_type_t::BindAck ? DecodeBindAck(pdu) : SBindAck{};
  }
  SContextResult ResultFor(const SSyntaxId& interface, const std::vector<SSyntaxId>& syntaxes) {
    Connect();
    const SBindAck ack = BindWith(test::BindOf({{0, interface, syntaxes}}));
    EXPECT_EQ(ack.results.size(), 1U);
    return ack.results.empty() ? SContextResult{} : ack.results.front();
  }
};

TEST_F(CAssociationTest, BindIsAnsweredWithWhatWillBeSpoken) {
  const SBindAck ack = BindWith(test::PlainBind());
  EXPECT_EQ(ack.maxTransmit, MaxFragmentSize);
  EXPECT_EQ(ack.maxReceive, MaxFragmentSize);
  EXPECT_NE(ack.associationGroup, 0U);
  EXPECT_EQ(ack.secondaryAddress, "6161");
  EXPECT_EQ(ack.results, (std::vector<SContextResult>{{0, 0, NdrSyntax}}));
  EXPECT_TRUE(association_->IsBound());
}

TEST_F(CAssociationTest, FragmentSizesStayBetweenTheLimits) {
  SBind bind = test::PlainBind();
  bind.maxTransmit = 100;
  bind.maxReceive = 60000;
  SBindAck ack = BindWith(bind);
  EXPECT_EQ(ack.maxReceive, MinFragmentSize);
  EXPECT_EQ(ack.maxTransmit, MaxFragmentSize);
  Connect();
  bind.maxTransmit = 4280;
  bind.maxReceive = 2000;
  bind.associationGroup = 12;
  ack = BindWith(bind);
  EXPECT_EQ(ack.maxReceive, 4280);
  EXPECT_EQ(ack.maxTransmit, 2000);
  EXPECT_EQ(ack.associationGroup, 12U);
}

TEST_F(CAssociationTest, EachContextHasItsOwnResult) {
  SSyntaxId other = FakeInterface::Identity();
  other.uuid.bytes[0] ^= 1;
  const SBindAck ack = BindWith(test::BindOf({{0, FakeInterface::Identity(), {Ndr64}},
                                              {1, FakeInterface::Identity(), {Ndr64, NdrSyntax}},
                                              {2, FakeInterface::Identity(), {Features}},
                                              {3, other, {NdrSyntax}},
                                              {4, FakeInterface::Identity(), {}}}));
  EXPECT_EQ(ack.results,
            (std::vector<SContextResult>{{2, 2, {}}, {0, 0, NdrSyntax}, {3, 2, {}}, {2, 1, {}}, {2, 2, {}}}));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "yes", 3, 1)));
  EXPECT_EQ(ResponseStub(1), Bytes("yes"));
  for (const int refused : {0, 2, 3, 4, 5, 65535}) {
    ASSERT_TRUE(Give(Fragment(2, FakeInterface::Echo, "no", 3, static_cast<std::uint16_t>(refused))));
    EXPECT_EQ(FaultStatus(2), fault::UnknownInterface) << refused;
  }
}

TEST_F(CAssociationTest, VersionsOfTheInterface) {
  const SContextResult refused{2, 1, {}};
  const SContextResult accepted{0, 0, NdrSyntax};
  SSyntaxId id = FakeInterface::Identity();
  EXPECT_EQ(ResultFor(id, {NdrSyntax}), accepted);
  id.version = 0x00000001;  // 1.0 is served by 1.2.
  EXPECT_EQ(ResultFor(id, {NdrSyntax}), accepted);
  id.version = 0x00030001;
  EXPECT_EQ(ResultFor(id, {NdrSyntax}), refused);
  id.version = 0x00000002;
  EXPECT_EQ(ResultFor(id, {NdrSyntax}), refused);
  SSyntaxId olderNdr = NdrSyntax;
  olderNdr.version = 1;
  EXPECT_EQ(ResultFor(FakeInterface::Identity(), {olderNdr}), (SContextResult{2, 2, {}}));
}

TEST_F(CAssociationTest, AlterContextAddsContexts) {
  Bind();
  ASSERT_TRUE(Give(EncodeBind(ClientHeader(pdu_type_t::AlterContext, 4),
                              test::BindOf({{8, FakeInterface::Identity(), {NdrSyntax}}}), std::nullopt)));
  const bytes_t answer = Answer();
  const SPdu pdu = ParsePdu(answer);
  EXPECT_EQ(pdu.header.type, pdu_type_t::AlterContextResponse);
  EXPECT_EQ(pdu.header.callId, 4U);
  EXPECT_EQ(DecodeBindAck(pdu).secondaryAddress, "");
  ASSERT_TRUE(Give(Fragment(5, FakeInterface::Echo, "a", 3, 8)));
  EXPECT_EQ(ResponseStub(5), Bytes("a"));
  ASSERT_TRUE(Give(Fragment(6, FakeInterface::Echo, "b", 3, 0)));
  EXPECT_EQ(ResponseStub(6), Bytes("b"));
}

TEST_F(CAssociationTest, APeerHasContextsForWhatItCallsAndNoMore) {
  constexpr std::uint16_t Most = 32;
  Bind();
  const auto addContext = [this](std::uint16_t id) {
    EXPECT_TRUE(Give(EncodeBind(ClientHeader(pdu_type_t::AlterContext, 4),
                                test::BindOf({{id, FakeInterface::Identity(), {NdrSyntax}}}), std::nullopt)));
    const bytes_t answer = Answer();
    return DecodeBindAck(ParsePdu(answer)).results.at(0);
  };
  for (std::uint16_t id = 1; id < Most; ++id)
    EXPECT_EQ(addContext(id), (SContextResult{SContextResult::Acceptance, 0, NdrSyntax})) << id;
  const SContextResult refused{SContextResult::ProviderRejection, SContextResult::LocalLimitExceeded, {}};
  EXPECT_EQ(addContext(Most), refused);
  EXPECT_EQ(addContext(65535), refused);
  // Those that it has stay, and may be told again.
  EXPECT_EQ(addContext(Most - 1).result, SContextResult::Acceptance);
  ASSERT_TRUE(Give(Fragment(5, FakeInterface::Echo, "a", 3, Most - 1)));
  EXPECT_EQ(ResponseStub(5), Bytes("a"));
  ASSERT_TRUE(Give(Fragment(6, FakeInterface::Echo, "a", 3, Most)));
  EXPECT_EQ(FaultStatus(6), fault::UnknownInterface);
}

TEST_F(CAssociationTest, OtherVersionsOfTheProtocolAreTurnedAway) {
  for (const auto& [major, minor] : {std::pair{4, 0}, {6, 0}, {5, 2}}) {
    Connect();
    bytes_t bind = EncodeBind(ClientHeader(pdu_type_t::Bind), test::PlainBind(), std::nullopt);
    bind[0] = static_cast<std::uint8_t>(major);
    bind[1] = static_cast<std::uint8_t>(minor);
    EXPECT_FALSE(Give(bind));
    const bytes_t answer = Answer();
    ASSERT_EQ(ParsePdu(answer).header.type, pdu_type_t::BindNak);
    EXPECT_EQ(DecodeBindNak(ParsePdu(answer)), (SBindNak{SBindNak::VersionNotSupported, {{5, 0}}}));
  }
  Connect();
  bytes_t bind = EncodeBind(ClientHeader(pdu_type_t::Bind), test::PlainBind(), std::nullopt);
  bind[1] = 1;
  EXPECT_TRUE(Give(bind));
}

TEST_F(CAssociationTest, CallsReachTheInterface) {
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "hello")));
  EXPECT_EQ(ResponseStub(1), Bytes("hello"));
  ASSERT_TRUE(Give(Fragment(2, FakeInterface::Echo, "")));
  EXPECT_EQ(ResponseStub(2), Bytes(""));
  ASSERT_TRUE(Give(Fragment(3, FakeInterface::Fault, "")));
  EXPECT_EQ(FaultStatus(3), fault::BadStubData);
  ASSERT_TRUE(Give(Fragment(4, FakeInterface::Throw, "")));
  EXPECT_EQ(FaultStatus(4), fault::Unspecified);
  ASSERT_TRUE(Give(Fragment(5, 500, "")));
  EXPECT_EQ(FaultStatus(5), fault::OperationRange);
  ASSERT_TRUE(Give(Fragment(6, FakeInterface::WhoAmI, "")));
  EXPECT_EQ(ResponseStub(6), Bytes("||1|no"));
}

TEST_F(CAssociationTest, FaultsTellWhetherTheCallWasMade) {
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "", 3, 9)));
  EXPECT_NE(ParsePdu(Answer()).header.flags & pdu_flag::DidNotExecute, 0);
  ASSERT_TRUE(Give(Fragment(2, FakeInterface::Throw, "")));
  EXPECT_EQ(ParsePdu(Answer()).header.flags & pdu_flag::DidNotExecute, 0);
}

TEST_F(CAssociationTest, TheCallerOfTheTransportIsTheCaller) {
  Connect({"root", "uid 0", "unix:1", auth_level_t::Privacy, true});
  Bind();
  ASSERT_TRUE(Give(Fragment(6, FakeInterface::WhoAmI, "")));
  EXPECT_EQ(ResponseStub(6), Bytes("root|uid 0|6|yes"));
}

TEST_F(CAssociationTest, BigEndianRequestsAreHandedOnAsSuch) {
  ASSERT_TRUE(
      Give(test::Hex("05000b03 00000000 00480000 00000001"
                     "10b810b8 00000000 01000000"
                     "00030100 1122334455667788 99aabbccddeeff01 00020001"
                     "8a885d041ceb11c9 9fe808002b104860 00000002")));
  EXPECT_EQ(DecodeBindAck(ParsePdu(Answer())).results.front().result, SContextResult::Acceptance);
  ASSERT_TRUE(Give(test::Hex("05000003 00000000 001c0000 00000002 00000004 00030000 00000007")));
  EXPECT_EQ(ResponseStub(2), test::Hex("00000007"));
  EXPECT_EQ(interface_->Calls().back().order, byte_order_t::Big);
}

TEST_F(CAssociationTest, ObjectsAreReadAndPassedOver) {
  Bind();
  SRequest request{0, 0, FakeInterface::Echo, platform::NewGuid(), {}};
  const bytes_t stub = Bytes("behind the object");
  request.stub = stub;
  SendRequest(ClientHeader(pdu_type_t::Request, 3), request, MaxFragmentSize, {}, [&](bytes_view_t pdu) {
    EXPECT_TRUE(Give({pdu.begin(), pdu.end()}));
  });
  EXPECT_EQ(ResponseStub(3), stub);
}

TEST_F(CAssociationTest, LargeStubsGoBothWays) {
  SBind bind = test::PlainBind();
  bind.maxReceive = 1500;
  BindWith(bind);
  bytes_t stub(300000);
  for (std::size_t i = 0; i < stub.size(); ++i)
    stub[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  SendRequest(ClientHeader(pdu_type_t::Request, 3), {0, 0, FakeInterface::Echo, std::nullopt, stub}, 1432, {},
              [&](bytes_view_t pdu) {
                EXPECT_TRUE(sent_.empty());
                EXPECT_TRUE(Give({pdu.begin(), pdu.end()}));
              });
  EXPECT_GT(sent_.size(), 200U);
  for (const bytes_t& pdu : sent_)
    EXPECT_LE(pdu.size(), 1500U);
  EXPECT_EQ(ResponseStub(3), stub);
  EXPECT_EQ(settings_.unknownBudget->Left(), UnknownCallersBudget);
}

TEST_F(CAssociationTest, SmallFragmentsComeTogether) {
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "a", pdu_flag::First)));
  EXPECT_TRUE(association_->IsInRequest());
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "", 0)));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "bc", 0)));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "", pdu_flag::Last)));
  EXPECT_FALSE(association_->IsInRequest());
  EXPECT_EQ(ResponseStub(1), Bytes("abc"));
}

TEST_F(CAssociationTest, TheFirstFragmentAloneTellsTheOperation) {
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "a", pdu_flag::First)));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Throw, "b", pdu_flag::Last, 5)));
  EXPECT_EQ(ResponseStub(1), Bytes("ab"));
}

TEST_F(CAssociationTest, FragmentsThatNeverEndMeetTheCap) {
  settings_.maxRequestStub = 10;
  Connect();
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "0123456789", pdu_flag::First)));
  EXPECT_TRUE(sent_.empty());
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "x", 0)));
  EXPECT_EQ(FaultStatus(1), fault::NoMemory);
  EXPECT_EQ(settings_.unknownBudget->Left(), UnknownCallersBudget);
  // What follows is dropped, without another answer, to the end of the request.
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "more", 0)));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "end", pdu_flag::Last)));
  EXPECT_TRUE(sent_.empty());
  EXPECT_TRUE(interface_->Calls().empty());
  // The call failed and the connection did not.
  ASSERT_TRUE(Give(Fragment(2, FakeInterface::Echo, "fine")));
  EXPECT_EQ(ResponseStub(2), Bytes("fine"));
}

TEST_F(CAssociationTest, StrangersCannotUseUpTheMemoryOfKnownCallers) {
  settings_.unknownBudget = boost::make_shared<io::byte_budget_t>(4);
  settings_.knownBudget = boost::make_shared<io::byte_budget_t>(8);
  Connect();
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "12345", pdu_flag::First)));
  EXPECT_EQ(FaultStatus(1), fault::NoMemory);
  Connect({"root", "uid 0", "unix:1", auth_level_t::Privacy, true});
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "12345", pdu_flag::First)));
  EXPECT_TRUE(sent_.empty());
  EXPECT_EQ(settings_.knownBudget->Left(), 3U);
  association_.reset();
  EXPECT_EQ(settings_.knownBudget->Left(), 8U);
}

TEST_F(CAssociationTest, CancelIsIgnoredAndOrphanedDropsTheRequest) {
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "a", pdu_flag::First)));
  ASSERT_TRUE(Give(EncodeEmpty(ClientHeader(pdu_type_t::Cancel, 1))));
  ASSERT_TRUE(Give(EncodeEmpty(ClientHeader(pdu_type_t::Orphaned, 2))));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "b", pdu_flag::Last)));
  EXPECT_EQ(ResponseStub(1), Bytes("ab"));
  ASSERT_TRUE(Give(Fragment(3, FakeInterface::Echo, "a", pdu_flag::First)));
  ASSERT_TRUE(Give(EncodeEmpty(ClientHeader(pdu_type_t::Orphaned, 3))));
  EXPECT_FALSE(association_->IsInRequest());
  ASSERT_TRUE(Give(Fragment(4, FakeInterface::Echo, "c")));
  EXPECT_EQ(ResponseStub(4), Bytes("c"));
  EXPECT_TRUE(sent_.empty());
}

TEST_F(CAssociationTest, MaybeCallsGetNoAnswer) {
  Bind();
  for (const std::uint16_t opnum : {FakeInterface::Echo, FakeInterface::Fault, FakeInterface::Throw})
    ASSERT_TRUE(Give(Fragment(1, opnum, "a", pdu_flag::First | pdu_flag::Last | pdu_flag::Maybe)));
  EXPECT_TRUE(sent_.empty());
  EXPECT_EQ(interface_->Calls().size(), 3U);
}

TEST_F(CAssociationTest, TheRestOfARefusedCallIsDropped) {
  Bind();
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "a", pdu_flag::First, 9)));
  EXPECT_EQ(FaultStatus(1), fault::UnknownInterface);
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "b", 0, 9)));
  ASSERT_TRUE(Give(Fragment(1, FakeInterface::Echo, "c", pdu_flag::Last, 9)));
  EXPECT_TRUE(sent_.empty());
  EXPECT_FALSE(association_->IsInRequest());
}

/// What breaks the protocol: the first PDUs are accepted, the last one ends the connection with a fault.
TEST_F(CAssociationTest, BreakingTheProtocolEndsTheConnection) {
  const bytes_t bind = EncodeBind(ClientHeader(pdu_type_t::Bind), test::PlainBind(), std::nullopt);
  const bytes_t alter = EncodeBind(ClientHeader(pdu_type_t::AlterContext), test::PlainBind(), std::nullopt);
  const bytes_t first = Fragment(1, FakeInterface::Echo, "a", pdu_flag::First);
  bytes_t bigEndianLast = test::Hex("05000002 00000000 001c0000 00000001 00000004 00000000 00000007");
  bytes_t cutRequest = Fragment(1, FakeInterface::Echo, "");
  cutRequest.resize(20);
  cutRequest[8] = 20;
  bytes_t unknownType = EncodeEmpty(ClientHeader(pdu_type_t::Cancel));
  unknownType[2] = 77;
  const std::vector<std::vector<bytes_t>> breaches{
      {Fragment(1, FakeInterface::Echo, "")},
      {alter},
      {EncodeAuth3(ClientHeader(pdu_type_t::Auth3), test::TokenOf("proof"))},
      {EncodeEmpty(ClientHeader(pdu_type_t::Orphaned))},
      {bind, bind},
      {bind, EncodeAuth3(ClientHeader(pdu_type_t::Auth3), test::TokenOf("proof"))},
      {bind, EncodeFault(ClientHeader(pdu_type_t::Fault), {})},
      {bind, unknownType},
      {bind, cutRequest},
      {bind, Fragment(1, FakeInterface::Echo, "a", 0)},
      {bind, Fragment(1, FakeInterface::Echo, "a", pdu_flag::Last)},
      {bind, first, first},
      {bind, first, Fragment(2, FakeInterface::Echo, "a")},
      {bind, first, Fragment(2, FakeInterface::Echo, "a", pdu_flag::Last)},
      {bind, first, bigEndianLast},
  };
  for (std::size_t i = 0; i < breaches.size(); ++i) {
    Connect();
    for (std::size_t j = 0; j < breaches[i].size(); ++j) {
      sent_.clear();
      EXPECT_EQ(Give(breaches[i][j]), j + 1 != breaches[i].size()) << i << ' ' << j;
    }
    ASSERT_EQ(sent_.size(), 1U) << i;
    EXPECT_EQ(DecodeFault(ParsePdu(sent_.front())).status, fault::ProtocolError) << i;
  }
  EXPECT_TRUE(interface_->Calls().empty());
}

TEST_F(CAssociationTest, WhatHasNoHeaderIsNotAnswered) {
  EXPECT_FALSE(Give(Bytes("GET / HTTP/1.0\r\n\r\n")));
  Connect();
  EXPECT_FALSE(Give({}));
  EXPECT_TRUE(sent_.empty());
}

TEST_F(CAssociationTest, WhatTheSinkThrowsPasses) {
  association_.emplace(settings_, SCaller(), [](bytes_view_t) { throw exc::term_exc_t(); });
  EXPECT_THROW(Give(EncodeBind(ClientHeader(pdu_type_t::Bind), test::PlainBind(), std::nullopt)), exc::term_exc_t);
}

/// Whatever bits of a conversation are wrong, nothing worse than a closed connection comes of it.
TEST_F(CAssociationTest, ChangedBytesDoNoHarm) {
  const std::vector<bytes_t> conversation{EncodeBind(ClientHeader(pdu_type_t::Bind), test::PlainBind(),
                                                     test::TokenOf("hello alone", auth_level_t::Connect)),
                                          Fragment(1, FakeInterface::Echo, "abc", pdu_flag::First),
                                          Fragment(1, FakeInterface::Echo, "d", pdu_flag::Last)};
  for (std::size_t which = 0; which < conversation.size(); ++which) {
    for (std::size_t at = 0; at < conversation[which].size(); ++at) {
      for (const int value : {0x00, 0x01, 0x7f, 0x80, 0xff}) {
        Connect();
        for (std::size_t i = 0; i < conversation.size(); ++i) {
          bytes_t pdu = conversation[i];
          if (i == which)
            pdu[at] = static_cast<std::uint8_t>(value);
          if (!Give(pdu))
            break;
        }
        for (const bytes_t& answer : sent_)
          EXPECT_NO_THROW(ParsePdu(answer));
      }
    }
  }
}

}  // namespace
}  // namespace dcerpc
