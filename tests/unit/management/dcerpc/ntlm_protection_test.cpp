#include "management/dcerpc/ntlm_protection.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

using dcerpc::auth_level_t;
using dcerpc::bytes_t;
using dcerpc::CNtlmProtection;
using dcerpc::CRc4;
using dcerpc::SFragment;
using dcerpc::side_t;

bytes_t FromHex(std::string_view text) {
  bytes_t bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
  return bytes;
}

const bytes_t SessionKey(CNtlmProtection::KeySize, 0x55);
/// "Plaintext" in UTF-16LE.
constexpr std::string_view PlainHex = "50006c00610069006e007400650078007400";

/// A PDU that is a stub and a signature alone.
struct BareMessage {
  explicit BareMessage(bytes_t text) : pdu(std::move(text)), size(pdu.size()) {
    pdu.resize(size + CNtlmProtection::SignatureLength);
  }
  SFragment Fragment() { return {pdu, 0, size, CNtlmProtection::SignatureLength, false}; }
  bytes_t Text() const { return {pdu.begin(), pdu.begin() + static_cast<long>(size)}; }
  bytes_t Signature() const { return {pdu.begin() + static_cast<long>(size), pdu.end()}; }

  bytes_t pdu;
  std::size_t size;
};

TEST(Rc4Test, GivesTheKnownKeyStreams) {
  bytes_t stream(16);
  CRc4(FromHex("0102030405")).Apply(stream);
  EXPECT_EQ(stream, FromHex("b2396305f03dc027ccc3524a0a1118a8"));

  stream.assign(32, 0);
  CRc4 cipher(FromHex("0102030405060708090a0b0c0d0e0f10"));
  cipher.Apply(std::span(stream).first(5));
  cipher.Apply(std::span(stream).subspan(5));
  EXPECT_EQ(stream, FromHex("9ac7cc9a609d1ef7b2932899cde41b975248c4959014126a6e8a84f11d1a9e1c"));
}

TEST(NtlmProtectionTest, SealsAsThePublishedExample) {
  CNtlmProtection client(side_t::Initiator, auth_level_t::Privacy, SessionKey, {});
  BareMessage message(FromHex(PlainHex));
  client.Protect(message.Fragment());
  EXPECT_EQ(message.Text(), FromHex("54e50165bf1936dc996020c1811b0f06fb5f"));
  EXPECT_EQ(message.Signature(), FromHex("010000007fb38ec5c55d497600000000"));

  CNtlmProtection server(side_t::Acceptor, auth_level_t::Privacy, SessionKey, {});
  server.Unprotect(message.Fragment());
  EXPECT_EQ(message.Text(), FromHex(PlainHex));
}

TEST(NtlmProtectionTest, BeginsWithTheGivenNumbers) {
  CNtlmProtection client(side_t::Initiator, auth_level_t::Integrity, SessionKey, {1, 0});
  CNtlmProtection server(side_t::Acceptor, auth_level_t::Integrity, SessionKey, {0, 1});
  BareMessage request(FromHex(PlainHex));
  client.Protect(request.Fragment());
  EXPECT_EQ(request.Signature().at(12), 1);
  EXPECT_EQ(request.Text(), FromHex(PlainHex));
  server.Unprotect(request.Fragment());
  BareMessage response(FromHex(PlainHex));
  server.Protect(response.Fragment());
  EXPECT_EQ(response.Signature().at(12), 0);
  client.Unprotect(response.Fragment());

  CNtlmProtection other(side_t::Acceptor, auth_level_t::Integrity, SessionKey, {});
  EXPECT_THROW(other.Unprotect(request.Fragment()), exc::runtime_exc_t);
}

TEST(NtlmProtectionTest, DirectionsHaveKeysOfTheirOwn) {
  CNtlmProtection client(side_t::Initiator, auth_level_t::Privacy, SessionKey, {});
  CNtlmProtection server(side_t::Acceptor, auth_level_t::Privacy, SessionKey, {});
  BareMessage request(FromHex(PlainHex));
  BareMessage response(FromHex(PlainHex));
  client.Protect(request.Fragment());
  server.Protect(response.Fragment());
  EXPECT_NE(request.pdu, response.pdu);
  // A message that is sent back to where it came from.
  EXPECT_THROW(client.Unprotect(request.Fragment()), exc::runtime_exc_t);
}

TEST(NtlmProtectionTest, FindsEachChangedBit) {
  for (const auth_level_t level : {auth_level_t::Packet, auth_level_t::Integrity, auth_level_t::Privacy}) {
    const std::size_t bits = 8 * (FromHex(PlainHex).size() + CNtlmProtection::SignatureLength);
    for (std::size_t bit = 0; bit < bits; ++bit) {
      CNtlmProtection client(side_t::Initiator, level, SessionKey, {});
      CNtlmProtection server(side_t::Acceptor, level, SessionKey, {});
      BareMessage message(FromHex(PlainHex));
      client.Protect(message.Fragment());
      message.pdu[bit / 8] = static_cast<std::uint8_t>(message.pdu[bit / 8] ^ (1U << bit % 8));
      EXPECT_THROW(server.Unprotect(message.Fragment()), exc::runtime_exc_t) << bit;
    }
  }
}

TEST(NtlmProtectionTest, RefusesSizesThatDoNotFit) {
  EXPECT_THROW(CNtlmProtection(side_t::Acceptor, auth_level_t::Packet, bytes_t(8), {}), exc::runtime_exc_t);
  CNtlmProtection server(side_t::Acceptor, auth_level_t::Packet, SessionKey, {});
  bytes_t pdu(40);
  EXPECT_THROW(server.Unprotect({pdu, 0, 20, 15, false}), exc::runtime_exc_t);
  EXPECT_THROW(server.Protect({pdu, 0, 20, 17, false}), exc::runtime_exc_t);
  EXPECT_THROW(server.Unprotect({pdu, 0, 25, 16, false}), exc::runtime_exc_t);
  EXPECT_THROW(server.Unprotect({pdu, 25, 0, 16, false}), exc::runtime_exc_t);
  EXPECT_THROW(server.Unprotect({pdu, 20, std::size_t(-10), 16, false}), exc::runtime_exc_t);
  EXPECT_THROW(server.Unprotect({pdu, 0, 0, 41, false}), exc::runtime_exc_t);
}

}  // namespace
