#include <gtest/gtest.h>

#include "management/dcerpc/association.h"
#include "unit/management/dcerpc/association_fixture.h"

namespace dcerpc {
namespace {

using test::Bytes;
using test::ClientHeader;
using test::FakeInterface;
using test::TokenOf;

class AssociationSecurityTest : public test::AssociationTest {
 protected:
  /// The answer to a bind that brings a token.
  bytes_t BindWith(const SToken& token, std::uint8_t flags = 0) {
    SPduHeader header = ClientHeader(pdu_type_t::Bind);
    header.flags |= flags;
    alive_ = Give(EncodeBind(header, test::PlainBind(), token));
    return Answer();
  }
  bool GiveAuth3(const SToken& token) { return Give(EncodeAuth3(ClientHeader(pdu_type_t::Auth3, 2), token)); }
  bytes_t AlterWith(const SToken& token) {
    alive_ = Give(EncodeBind(ClientHeader(pdu_type_t::AlterContext, 2), test::PlainBind(), token));
    return Answer();
  }

  /// The peer's end of an established association, and its protection.
  SProtection Establish(auth_level_t level, std::uint8_t flags = 0) {
    Connect();
    EXPECT_EQ(ParsePdu(BindWith(TokenOf("hello alone", level), flags)).header.type, pdu_type_t::BindAck);
    peer_ = std::make_unique<test::FakeSecurityContext>(level, true);
    return {peer_.get(), auth_type_t::Ntlm, level, test::SecurityContextId, flags != 0};
  }
  /// Whether the association lives on.
  bool Send(std::uint32_t callId, std::uint16_t opnum, const bytes_t& stub, const SProtection& protection) {
    bool alive = true;
    SendRequest(ClientHeader(pdu_type_t::Request, callId), {0, 0, opnum, std::nullopt, stub}, MinFragmentSize,
                protection, [&](bytes_view_t pdu) {
                  alive = alive && Give({pdu.begin(), pdu.end()});
                });
    return alive;
  }
  void ExpectCallsAreDenied() {
    for (std::uint32_t call = 10; call < 13; ++call) {
      EXPECT_TRUE(Give(Fragment(call, FakeInterface::Echo, "a")));
      EXPECT_EQ(FaultStatus(call), fault::AccessDenied);
    }
    EXPECT_TRUE(interface_->Calls().empty());
  }
  static std::string TokenIn(const bytes_t& answer) {
    const SPdu pdu = ParsePdu(answer);
    return {pdu.authValue.begin(), pdu.authValue.end()};
  }

  bool alive_ = true;
  std::unique_ptr<test::FakeSecurityContext> peer_;
};

TEST_F(AssociationSecurityTest, ThreeLegsEndWithAuth3) {
  const bytes_t ack = BindWith(TokenOf("hello", auth_level_t::Connect));
  EXPECT_EQ(ParsePdu(ack).header.type, pdu_type_t::BindAck);
  EXPECT_EQ(TokenIn(ack), "challenge");
  EXPECT_EQ(*ParsePdu(ack).trailer, (SAuthTrailer{auth_type_t::Ntlm, auth_level_t::Connect, 0, 77}));
  EXPECT_FALSE(association_->Caller().authenticated);
  EXPECT_TRUE(GiveAuth3(TokenOf("proof", auth_level_t::Connect)));
  EXPECT_TRUE(sent_.empty());
  EXPECT_TRUE(association_->Caller().authenticated);
  ASSERT_TRUE(Give(Fragment(3, FakeInterface::WhoAmI, "")));
  EXPECT_EQ(ResponseStub(3), Bytes("peer|REALM\\peer|2|yes"));
}

TEST_F(AssociationSecurityTest, ThreeLegsEndWithAlterContext) {
  BindWith(TokenOf("hello"));
  EXPECT_EQ(TokenIn(AlterWith(TokenOf("proof with more"))), "one more");
  EXPECT_TRUE(association_->Caller().authenticated);
  EXPECT_EQ(association_->Caller().level, auth_level_t::Privacy);
  Connect();
  BindWith(TokenOf("hello"));
  const bytes_t answer = AlterWith(TokenOf("proof"));
  EXPECT_EQ(ParsePdu(answer).header.type, pdu_type_t::AlterContextResponse);
  EXPECT_FALSE(ParsePdu(answer).trailer);
}

TEST_F(AssociationSecurityTest, AuthenticationMayBeginWithAlterContext) {
  Bind();
  EXPECT_EQ(TokenIn(AlterWith(TokenOf("hello alone", auth_level_t::Connect))), "welcome");
  ASSERT_TRUE(Give(Fragment(3, FakeInterface::WhoAmI, "")));
  EXPECT_EQ(ResponseStub(3), Bytes("peer|REALM\\peer|2|yes"));
}

TEST_F(AssociationSecurityTest, NoRequestThatBeganBeforeTheAuthenticationIsMadeAsTheCallers) {
  Bind();
  ASSERT_TRUE(Give(Fragment(3, FakeInterface::WhoAmI, "what anyone says", pdu_flag::First)));
  AlterWith(TokenOf("hello alone", auth_level_t::Connect));
  EXPECT_FALSE(association_->Caller().authenticated);
  ASSERT_TRUE(Give(Fragment(3, FakeInterface::WhoAmI, "", pdu_flag::Last)));
  EXPECT_EQ(FaultStatus(3), fault::AccessDenied);
}

TEST_F(AssociationSecurityTest, RefusedTokensEndTheBind) {
  const auto expectRefused = [this](const SToken& token) {
    Connect();
    const bytes_t answer = BindWith(token);
    EXPECT_EQ(ParsePdu(answer).header.type, pdu_type_t::BindNak);
    EXPECT_EQ(DecodeBindNak(ParsePdu(answer)).reason, SBindNak::AuthenticationRefused);
    EXPECT_FALSE(alive_);
  };
  expectRefused(TokenOf("wrong password"));
  expectRefused(TokenOf("hello", auth_level_t::None));
  expectRefused(TokenOf("hello", auth_level_t::Call));
  expectRefused(TokenOf("hello", static_cast<auth_level_t>(0)));
  expectRefused(TokenOf("hello", static_cast<auth_level_t>(7)));
  expectRefused(TokenOf("hello", auth_level_t::Privacy, static_cast<auth_type_t>(68)));
  settings_.security.reset();
  expectRefused(TokenOf("hello"));
}

TEST_F(AssociationSecurityTest, AFailedAuth3IsRemembered) {
  for (const SToken& token : {TokenOf("wrong"), TokenOf("proof with more"), TokenOf("proof", auth_level_t::Connect),
                              TokenOf("proof", auth_level_t::Privacy, auth_type_t::Kerberos), TokenOf("")}) {
    Connect();
    BindWith(TokenOf("hello"));
    EXPECT_TRUE(GiveAuth3(token));
    EXPECT_TRUE(sent_.empty());
    EXPECT_FALSE(association_->Caller().authenticated);
    ExpectCallsAreDenied();
    // There is no second try.
    EXPECT_TRUE(GiveAuth3(TokenOf("proof")));
    ExpectCallsAreDenied();
    EXPECT_EQ(DecodeFault(ParsePdu(AlterWith(TokenOf("hello alone")))).status, fault::AccessDenied);
    ExpectCallsAreDenied();
  }
}

TEST_F(AssociationSecurityTest, AFailedAlterContextIsRemembered) {
  BindWith(TokenOf("hello"));
  const bytes_t answer = AlterWith(TokenOf("wrong"));
  EXPECT_EQ(DecodeFault(ParsePdu(answer)).status, fault::AccessDenied);
  EXPECT_TRUE(alive_);
  ExpectCallsAreDenied();
}

TEST_F(AssociationSecurityTest, AnUnfinishedHandshakeMakesNoCalls) {
  BindWith(TokenOf("hello"));
  ExpectCallsAreDenied();
  EXPECT_TRUE(GiveAuth3(TokenOf("proof")));
  EXPECT_TRUE(association_->Caller().authenticated);
}

TEST_F(AssociationSecurityTest, AnEstablishedContextStays) {
  const SProtection protection = Establish(auth_level_t::Integrity);
  EXPECT_EQ(DecodeFault(ParsePdu(AlterWith(TokenOf("wrong", auth_level_t::Integrity)))).status, fault::AccessDenied);
  ASSERT_TRUE(Send(3, FakeInterface::WhoAmI, {}, protection));
  EXPECT_EQ(ResponseStub(3, protection), Bytes("peer|REALM\\peer|5|yes"));
}

TEST_F(AssociationSecurityTest, EveryLevelProtectsBothWays) {
  bytes_t stub(20000);
  for (std::size_t i = 0; i < stub.size(); ++i)
    stub[i] = static_cast<std::uint8_t>(i * 3 + i / 256);
  for (const auth_level_t level :
       {auth_level_t::Connect, auth_level_t::Packet, auth_level_t::Integrity, auth_level_t::Privacy}) {
    for (const std::uint8_t flags : {std::uint8_t{0}, pdu_flag::SupportHeaderSign}) {
      const SProtection protection = Establish(level, flags);
      for (std::uint32_t call = 1; call < 5; ++call) {
        stub.resize(stub.size() - 1);
        ASSERT_TRUE(Send(call, FakeInterface::Echo, stub, protection));
        for (const bytes_t& answer : sent_)
          EXPECT_EQ(ParsePdu(answer).trailer.has_value(), level != auth_level_t::Connect);
        EXPECT_EQ(ResponseStub(call, protection), stub);
      }
    }
  }
}

TEST_F(AssociationSecurityTest, HeaderSigningIsEchoed) {
  EXPECT_NE(
      ParsePdu(BindWith(TokenOf("hello"), pdu_flag::SupportHeaderSign)).header.flags & pdu_flag::SupportHeaderSign, 0);
  Connect();
  EXPECT_EQ(ParsePdu(BindWith(TokenOf("hello"))).header.flags & pdu_flag::SupportHeaderSign, 0);
}

TEST_F(AssociationSecurityTest, ProtectedAssociationsWantVerifiers) {
  for (const auth_level_t level : {auth_level_t::Packet, auth_level_t::Integrity, auth_level_t::Privacy}) {
    SProtection protection = Establish(level);
    ExpectCallsAreDenied();
    // Verifiers of another context are none, and the whole call gets one answer.
    SProtection other = protection;
    other.contextId = 78;
    test::FakeSecurityContext spare(level, true);
    other.context = &spare;
    EXPECT_TRUE(Send(4, FakeInterface::Echo, bytes_t(5000), other));
    EXPECT_EQ(FaultStatus(4), fault::AccessDenied);
    EXPECT_TRUE(sent_.empty());
    EXPECT_TRUE(interface_->Calls().empty());
  }
}

TEST_F(AssociationSecurityTest, AFragmentWithoutVerifierInTheMiddle) {
  const SProtection protection = Establish(auth_level_t::Integrity);
  std::vector<bytes_t> pdus;
  const bytes_t stub(3000);
  SendRequest(ClientHeader(pdu_type_t::Request, 4), {0, 0, FakeInterface::Echo, std::nullopt, stub}, MinFragmentSize,
              protection, [&](bytes_view_t pdu) { pdus.emplace_back(pdu.begin(), pdu.end()); });
  ASSERT_TRUE(Give(pdus.front()));
  ASSERT_TRUE(Give(Fragment(4, FakeInterface::Echo, "forged", pdu_flag::Last)));
  EXPECT_EQ(FaultStatus(4), fault::AccessDenied);
  EXPECT_TRUE(interface_->Calls().empty());
}

TEST_F(AssociationSecurityTest, AWrongSignatureEndsTheConnection) {
  SProtection protection = Establish(auth_level_t::Privacy);
  // One that the receiver has not counted.
  bytes_t skipped(16);
  protection.context->Protect({skipped, 0, 0, test::FakeSecurityContext::SignatureBytes, false});
  EXPECT_FALSE(Send(4, FakeInterface::Echo, Bytes("abc"), protection));
  EXPECT_EQ(FaultStatus(4), fault::SecurityPackage);
  EXPECT_TRUE(interface_->Calls().empty());
}

TEST_F(AssociationSecurityTest, ARefusedCallKeepsTheSequence) {
  const SProtection protection = Establish(auth_level_t::Integrity);
  EXPECT_TRUE(Send(4, 500, bytes_t(5000), protection));
  EXPECT_EQ(FaultStatus(4), fault::OperationRange);
  settings_.maxRequestStub = 100;
  EXPECT_TRUE(Send(5, FakeInterface::Echo, bytes_t(9000), protection));
  EXPECT_EQ(FaultStatus(5), fault::NoMemory);
  EXPECT_TRUE(sent_.empty());
  EXPECT_TRUE(Send(6, FakeInterface::Echo, Bytes("in step"), protection));
  EXPECT_EQ(ResponseStub(6, protection), Bytes("in step"));
}

TEST_F(AssociationSecurityTest, ACancelWithVerifierKeepsTheSequence) {
  const SProtection protection = Establish(auth_level_t::Integrity);
  bytes_t cancel = EncodeEmpty(ClientHeader(pdu_type_t::Cancel, 3));
  AppendTrailer(cancel, {protection.type, protection.level, 0, protection.contextId}, 0);
  cancel.resize(cancel.size() + test::FakeSecurityContext::SignatureBytes);
  SetLengths(cancel, test::FakeSecurityContext::SignatureBytes);
  protection.context->Protect({cancel, HeaderSize, 0, test::FakeSecurityContext::SignatureBytes, false});
  ASSERT_TRUE(Give(cancel));
  ASSERT_TRUE(Send(6, FakeInterface::Echo, Bytes("in step"), protection));
  EXPECT_EQ(ResponseStub(6, protection), Bytes("in step"));
  EXPECT_FALSE(Give(cancel));
}

TEST_F(AssociationSecurityTest, VerifiersWithoutAContextAreRefused) {
  Bind();
  test::FakeSecurityContext context(auth_level_t::Integrity, true);
  EXPECT_TRUE(Send(4, FakeInterface::Echo, Bytes("a"),
                   {&context, auth_type_t::Ntlm, auth_level_t::Integrity, test::SecurityContextId, false}));
  EXPECT_EQ(FaultStatus(4), fault::AccessDenied);
}

TEST_F(AssociationSecurityTest, VerifiersAtLevelConnectArePassedOver) {
  Establish(auth_level_t::Connect);
  bytes_t request = Fragment(4, FakeInterface::Echo, "abcd");
  AppendTrailer(request, TokenOf("", auth_level_t::Connect).trailer, 4);
  request.resize(request.size() + 16);
  SetLengths(request, 16);
  ASSERT_TRUE(Give(request));
  EXPECT_EQ(ResponseStub(4), Bytes("abcd"));
}

}  // namespace
}  // namespace dcerpc
