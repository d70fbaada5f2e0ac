#include "management/dcerpc/pdu.h"

#include <gtest/gtest.h>

#include <functional>

#include "unit/management/dcerpc/fake_interface.h"
#include "unit/management/dcerpc/fake_security.h"
#include "unit/management/dcerpc/stub_bytes.h"

namespace dcerpc {
namespace {

using test::Bytes;
using test::Hex;

constexpr SSyntaxId Ndr64{
    {{0x71, 0x71, 0x05, 0x33, 0xbe, 0xba, 0x49, 0x37, 0x83, 0x19, 0xb5, 0xdb, 0xef, 0x9c, 0xcc, 0x36}}, 1};

SPduHeader Header(pdu_type_t type) {
  SPduHeader header;
  header.type = type;
  header.callId = 0x01020304;
  return header;
}

SToken Token(std::string_view value) {
  return {{auth_type_t::Ntlm, auth_level_t::Privacy, 0, 79231}, Bytes(value)};
}

SBind SampleBind() {
  SBind bind{4280, 2000, 7, {}};
  bind.contexts.push_back({0, test::FakeInterface::Identity(), {NdrSyntax}});
  bind.contexts.push_back({9, test::FakeInterface::Identity(), {Ndr64, NdrSyntax}});
  return bind;
}

SBindAck SampleAck() {
  return {4280, 2000, 7, "6161", {{0, 0, NdrSyntax}, {2, 2, {}}}};
}

void SetLength(bytes_t& pdu, std::size_t length) {
  pdu[8] = static_cast<std::uint8_t>(length);
  pdu[9] = static_cast<std::uint8_t>(length >> 8);
}

/// Whatever comes of a PDU that is cut, or whose lengths lie: no decoder takes it for whole.
void ExpectNoPrefixIsAccepted(const bytes_t& whole, const std::function<void(const SPdu&)>& decode) {
  ASSERT_NO_THROW(decode(ParsePdu(whole)));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    bytes_t cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_THROW(ParsePdu(cut), exc::runtime_exc_t) << length;
    if (length < HeaderSize)
      continue;
    SetLength(cut, length);
    EXPECT_THROW(decode(ParsePdu(cut)), exc::runtime_exc_t) << length;
  }
}

TEST(PduTest, WritesTheCommonHeaderLittleEndian) {
  SPduHeader header = Header(pdu_type_t::Cancel);
  header.order = byte_order_t::Big;
  const bytes_t pdu = EncodeEmpty(header);
  EXPECT_EQ(pdu, Hex("05001203 10000000 10000000 04030201"));
  header.order = byte_order_t::Little;
  header.fragmentLength = 16;
  EXPECT_EQ(DecodeHeader(pdu), header);
}

TEST(PduTest, ReadsTheHeaderOfABigEndianPeer) {
  const SPduHeader header = DecodeHeader(Hex("05010b07 00000000 00480000 01020304"));
  EXPECT_EQ(header.minorVersion, 1);
  EXPECT_EQ(header.type, pdu_type_t::Bind);
  EXPECT_EQ(header.flags, pdu_flag::First | pdu_flag::Last | pdu_flag::SupportHeaderSign);
  EXPECT_EQ(header.order, byte_order_t::Big);
  EXPECT_EQ(header.fragmentLength, 0x48);
  EXPECT_EQ(header.callId, 0x01020304U);
}

TEST(PduTest, RefusesHeadersThatCannotBe) {
  EXPECT_THROW(DecodeHeader(Hex("05001203 10000000 10000000 040302")), exc::runtime_exc_t);
  EXPECT_THROW(DecodeHeader(Hex("05001203 20000000 10000000 04030201")), exc::runtime_exc_t) << "order";
  EXPECT_THROW(DecodeHeader(Hex("05001203 10000000 0f000000 04030201")), exc::runtime_exc_t) << "length";
}

TEST(PduTest, BindComesBackAsItWas) {
  const bytes_t pdu = EncodeBind(Header(pdu_type_t::Bind), SampleBind(), std::nullopt);
  const SPdu parsed = ParsePdu(pdu);
  EXPECT_EQ(parsed.header.type, pdu_type_t::Bind);
  EXPECT_FALSE(parsed.trailer);
  EXPECT_EQ(DecodeBind(parsed), SampleBind());
  ExpectNoPrefixIsAccepted(pdu, [](const SPdu& cut) { DecodeBind(cut); });
}

TEST(PduTest, BindOfABigEndianPeerIsTheSame) {
  const bytes_t pdu =
      Hex("05000b03 00000000 00480000 00000001"
          "10b810b8 00000000 01000000"
          "00030100 1122334455667788 99aabbccddeeff01 00020001"
          "8a885d041ceb11c9 9fe808002b104860 00000002");
  const SBind bind = DecodeBind(ParsePdu(pdu));
  EXPECT_EQ(bind, (SBind{4280, 4280, 0, {{3, test::FakeInterface::Identity(), {NdrSyntax}}}}));
}

TEST(PduTest, UuidsGoOutInLittleEndianFields) {
  const SBind bind{4280, 4280, 0, {{0, test::FakeInterface::Identity(), {NdrSyntax}}}};
  EXPECT_EQ(EncodeBind(Header(pdu_type_t::Bind), bind, std::nullopt),
            Hex("05000b03 10000000 48000000 04030201"
                "b810b810 00000000 01000000"
                "00000100 4433221166558877 99aabbccddeeff01 01000200"
                "045d888aeb1cc911 9fe808002b104860 02000000"));
}

TEST(PduTest, BindAckComesBackAsItWas) {
  for (const char* address : {"", "6161", "135", "/run/kelvo/management"}) {
    SBindAck ack = SampleAck();
    ack.secondaryAddress = address;
    const bytes_t pdu = EncodeBindAck(Header(pdu_type_t::BindAck), ack, Token("token"));
    const SPdu parsed = ParsePdu(pdu);
    EXPECT_EQ(DecodeBindAck(parsed), ack) << address;
    ASSERT_TRUE(parsed.trailer);
    EXPECT_EQ(bytes_t(parsed.authValue.begin(), parsed.authValue.end()), Bytes("token"));
  }
  ExpectNoPrefixIsAccepted(EncodeBindAck(Header(pdu_type_t::BindAck), SampleAck(), std::nullopt),
                           [](const SPdu& cut) { DecodeBindAck(cut); });
}

TEST(PduTest, BindNakComesBackAsItWas) {
  const SBindNak nak{SBindNak::VersionNotSupported, {{5, 0}, {5, 1}}};
  const bytes_t pdu = EncodeBindNak(Header(pdu_type_t::BindNak), nak);
  EXPECT_EQ(DecodeBindNak(ParsePdu(pdu)), nak);
  EXPECT_EQ(DecodeBindNak(ParsePdu(Hex("05000d03 10000000 12000000 01000000 0800"))).reason,
            SBindNak::AuthenticationRefused);
  EXPECT_THROW(DecodeBindNak(ParsePdu(Hex("05000d03 10000000 15000000 01000000 0400020500"))), exc::runtime_exc_t);
}

TEST(PduTest, Auth3CarriesItsToken) {
  const bytes_t pdu = EncodeAuth3(Header(pdu_type_t::Auth3), Token("proof"));
  const SPdu parsed = ParsePdu(pdu);
  EXPECT_EQ(parsed.body.size(), 4U);
  ASSERT_TRUE(parsed.trailer);
  EXPECT_EQ(*parsed.trailer, Token("").trailer);
  EXPECT_EQ(bytes_t(parsed.authValue.begin(), parsed.authValue.end()), Bytes("proof"));
}

TEST(PduTest, TheTrailerIsAlignedAndTellsItsPadding) {
  // Addresses of every length, so that the result list begins at every distance from where they end.
  SBindAck ack = SampleAck();
  ack.results.clear();
  for (std::size_t length = 0; length < 5; ++length) {
    ack.secondaryAddress = std::string(length, 'x');
    const bytes_t pdu = EncodeBindAck(Header(pdu_type_t::BindAck), ack, Token("abc"));
    EXPECT_EQ((pdu.size() - 3 - TrailerSize) % 4, 0U);
    EXPECT_EQ(DecodeBindAck(ParsePdu(pdu)), ack);
  }
}

TEST(PduTest, FaultComesBackAsItWas) {
  const SFault fault{3, 1, fault::OperationRange};
  const bytes_t pdu = EncodeFault(Header(pdu_type_t::Fault), fault);
  EXPECT_EQ(pdu, Hex("05000303 10000000 20000000 04030201 20000000 03000100 0200011c 00000000"));
  EXPECT_EQ(DecodeFault(ParsePdu(pdu)), fault);
}

TEST(PduTest, RequestHeadWithAndWithoutObject) {
  SRequest request{100, 2, 7, std::nullopt, {}};
  bytes_t pdu = EncodeRequestHead(Header(pdu_type_t::Request), request);
  SetLengths(pdu, 0);
  EXPECT_EQ(pdu, Hex("05000003 10000000 18000000 04030201 64000000 02000700"));
  request.object = test::FakeInterface::Identity().uuid;
  pdu = EncodeRequestHead(Header(pdu_type_t::Request), request);
  const bytes_t stub = Bytes("stub");
  pdu.insert(pdu.end(), stub.begin(), stub.end());
  SetLengths(pdu, 0);
  const SRequest decoded = DecodeRequest(ParsePdu(pdu));
  EXPECT_EQ(decoded.allocHint, 100U);
  EXPECT_EQ(decoded.contextId, 2);
  EXPECT_EQ(decoded.opnum, 7);
  EXPECT_EQ(decoded.object, request.object);
  EXPECT_EQ(bytes_t(decoded.stub.begin(), decoded.stub.end()), stub);
  pdu.resize(pdu.size() - stub.size());
  SetLengths(pdu, 0);
  ExpectNoPrefixIsAccepted(pdu, [](const SPdu& cut) { DecodeRequest(cut); });
}

TEST(PduTest, RequestOfABigEndianPeer) {
  const bytes_t pdu =
      Hex("05000083 00000000 002a0000 00000001 00000002 00010002"
          "1122334455667788 99aabbccddeeff01 abcd");
  const SRequest request = DecodeRequest(ParsePdu(pdu));
  EXPECT_EQ(request.contextId, 1);
  EXPECT_EQ(request.opnum, 2);
  EXPECT_EQ(request.object, test::FakeInterface::Identity().uuid);
  EXPECT_EQ(request.stub.size(), 2U);
}

TEST(PduTest, LengthsOfTheVerifierThatLie) {
  const bytes_t whole = EncodeAuth3(Header(pdu_type_t::Auth3), Token("proof"));
  for (unsigned length = 0; length <= 0xffff; ++length) {
    bytes_t lying = whole;
    lying[10] = static_cast<std::uint8_t>(length);
    lying[11] = static_cast<std::uint8_t>(length >> 8);
    if (length <= 9) {
      // Any of these lie inside the PDU; where the trailer would begin, its padding must fit too.
      try {
        const SPdu pdu = ParsePdu(lying);
        EXPECT_EQ(pdu.authValue.size(), length);
      } catch (const exc::runtime_exc_t&) {
      }
    } else {
      EXPECT_THROW(ParsePdu(lying), exc::runtime_exc_t) << length;
    }
  }
}

TEST(PduTest, PaddingThatIsLongerThanTheBody) {
  bytes_t pdu = EncodeAuth3(Header(pdu_type_t::Auth3), Token("proof"));
  pdu[HeaderSize + 4 + 2] = 4;
  EXPECT_TRUE(ParsePdu(pdu).body.empty());
  pdu[HeaderSize + 4 + 2] = 5;
  EXPECT_THROW(ParsePdu(pdu), exc::runtime_exc_t);
}

TEST(PduTest, CountsThatLie) {
  bytes_t pdu = EncodeBind(Header(pdu_type_t::Bind), SampleBind(), std::nullopt);
  pdu[HeaderSize + 8] = 255;
  EXPECT_THROW(DecodeBind(ParsePdu(pdu)), exc::runtime_exc_t);
  pdu[HeaderSize + 8] = 2;
  pdu[HeaderSize + 12 + 2] = 255;
  EXPECT_THROW(DecodeBind(ParsePdu(pdu)), exc::runtime_exc_t);
}

TEST(PduTest, WhatOnePduCannotHoldIsNotSent) {
  EXPECT_THROW(EncodeAuth3(Header(pdu_type_t::Auth3), Token(std::string(65536, 't'))), exc::runtime_exc_t);
  EXPECT_THROW(EncodeAuth3(Header(pdu_type_t::Auth3), Token(std::string(65530, 't'))), exc::runtime_exc_t);
  SBind bind = SampleBind();
  bind.contexts.resize(256);
  EXPECT_THROW(EncodeBind(Header(pdu_type_t::Bind), bind, std::nullopt), exc::runtime_exc_t);
}

}  // namespace
}  // namespace dcerpc
