#include "management/dcerpc/fragments.h"

#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

#include "unit/management/dcerpc/fake_security.h"

namespace dcerpc {
namespace {

bytes_t Pattern(std::size_t size) {
  bytes_t bytes(size);
  std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
  return bytes;
}

SProtection Protection(ISecurityContext& context, auth_level_t level, bool headerSigned) {
  return {&context, auth_type_t::Ntlm, level, 42, headerSigned};
}

/// Level, header signing, object, size of the stub.
using Case = std::tuple<auth_level_t, bool, bool, std::size_t>;

class FragmentsTest : public testing::TestWithParam<Case> {};

TEST_P(FragmentsTest, WhatIsCutAndProtectedComesTogetherAgain) {
  const auto [level, headerSigned, withObject, size] = GetParam();
  test::FakeSecurityContext sender(level, true);
  test::FakeSecurityContext receiver(level, true);
  const SProtection sending = Protection(sender, level, headerSigned);
  const SProtection receiving = Protection(receiver, level, headerSigned);
  const bytes_t stub = Pattern(size);
  SPduHeader header;
  header.callId = 5;
  SRequest request{0, 3, 4, std::nullopt, stub};
  if (withObject)
    request.object = platform::GUID{{1, 2, 3}};

  std::vector<bytes_t> pdus;
  SendRequest(header, request, MinFragmentSize, sending,
              [&](bytes_view_t pdu) { pdus.emplace_back(pdu.begin(), pdu.end()); });

  bytes_t received;
  for (std::size_t i = 0; i < pdus.size(); ++i) {
    const SPdu pdu = ParsePdu(pdus[i]);
    EXPECT_LE(pdus[i].size(), std::size_t{MinFragmentSize});
    EXPECT_EQ((pdu.header.flags & pdu_flag::First) != 0, i == 0);
    EXPECT_EQ((pdu.header.flags & pdu_flag::Last) != 0, i + 1 == pdus.size());
    if (receiving.IsOn()) {
      ASSERT_EQ(Unprotect(pdus[i], pdu, StubOffset(pdu.header), receiving), protection_result_t::Good);
    }
    const SRequest part = DecodeRequest(pdu);
    EXPECT_EQ(part.allocHint, size - received.size());
    EXPECT_EQ(part.opnum, 4);
    EXPECT_EQ(part.object, request.object);
    received.insert(received.end(), part.stub.begin(), part.stub.end());
  }
  EXPECT_EQ(received, stub);
}

INSTANTIATE_TEST_SUITE_P(AllWays, FragmentsTest,
                         testing::Combine(testing::Values(auth_level_t::Connect, auth_level_t::Packet,
                                                          auth_level_t::Integrity, auth_level_t::Privacy),
                                          testing::Bool(), testing::Bool(),
                                          testing::Values(0U, 1U, 15U, 16U, 1376U, 1408U, 1409U, 20000U)));

TEST(FragmentProtectionTest, VerifierOfAnotherContextIsNone) {
  test::FakeSecurityContext sender(auth_level_t::Integrity, true);
  test::FakeSecurityContext receiver(auth_level_t::Integrity, true);
  const SProtection receiving = Protection(receiver, auth_level_t::Integrity, false);
  const bytes_t stub = Pattern(20);
  const auto send = [&](SProtection sending) {
    bytes_t sent;
    SendResponse({}, {0, 0, 0, stub}, MinFragmentSize, sending,
                 [&](bytes_view_t pdu) { sent.assign(pdu.begin(), pdu.end()); });
    return Unprotect(sent, ParsePdu(sent), StubOffset(ParsePdu(sent).header), receiving);
  };
  SProtection sending = Protection(sender, auth_level_t::Integrity, false);
  sending.type = auth_type_t::Kerberos;
  EXPECT_EQ(send(sending), protection_result_t::NoVerifier);
  sending = Protection(sender, auth_level_t::Packet, false);
  EXPECT_EQ(send(sending), protection_result_t::NoVerifier);
  sending = Protection(sender, auth_level_t::Integrity, false);
  sending.contextId = 43;
  EXPECT_EQ(send(sending), protection_result_t::NoVerifier);
  EXPECT_EQ(send({}), protection_result_t::NoVerifier);
}

TEST(FragmentProtectionTest, NothingThatIsCoveredCanBeChanged) {
  const bytes_t stub = Pattern(20);
  test::FakeSecurityContext sender(auth_level_t::Integrity, true);
  bytes_t good;
  SendResponse({}, {0, 0, 0, stub}, MinFragmentSize, Protection(sender, auth_level_t::Integrity, true),
               [&](bytes_view_t pdu) { good.assign(pdu.begin(), pdu.end()); });
  const std::size_t trailer = good.size() - test::FakeSecurityContext::SignatureBytes - TrailerSize;
  for (std::size_t i = HeaderSize; i < good.size(); ++i) {
    if (i >= trailer && i < trailer + TrailerSize)
      continue;
    bytes_t changed = good;
    changed[i] ^= 1;
    test::FakeSecurityContext receiver(auth_level_t::Integrity, true);
    EXPECT_EQ(Unprotect(changed, ParsePdu(changed), StubOffset(ParsePdu(changed).header),
                        Protection(receiver, auth_level_t::Integrity, true)),
              protection_result_t::WrongSignature)
        << i;
  }
}

TEST(FragmentProtectionTest, PaddingThatReachesIntoTheHeadIsRefused) {
  test::FakeSecurityContext sender(auth_level_t::Integrity, true);
  test::FakeSecurityContext receiver(auth_level_t::Integrity, true);
  bytes_t pdu;
  SendResponse({}, {0, 0, 0, {}}, MinFragmentSize, Protection(sender, auth_level_t::Integrity, false),
               [&](bytes_view_t sent) { pdu.assign(sent.begin(), sent.end()); });
  pdu[24 + 2] = 1;
  EXPECT_EQ(Unprotect(pdu, ParsePdu(pdu), StubOffset(ParsePdu(pdu).header),
                      Protection(receiver, auth_level_t::Integrity, false)),
            protection_result_t::WrongSignature);
}

}  // namespace
}  // namespace dcerpc
