// An initiator and an acceptor in one process, and fragments between them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "management/dcerpc/gss_initiator.h"
#include "management/dcerpc/gss_provider.h"

namespace test {

/// Accounts of the test's making.
class FakeAccounts : public dcerpc::IAccountDatabase {
 public:
  bool HasAccount(const std::string& name) const override { return names.contains(name); }

  std::set<std::string> names{"root", "admin", "guest"};
};

/// Any type of the family will do where a peer is refused.
using refusal_t = exc::runtime_exc_t;

/// Carries tokens between both until both stand. Throws what either throws; the legs are kept.
struct Handshake {
  std::vector<dcerpc::bytes_t> toAcceptor;
  std::vector<dcerpc::bytes_t> toInitiator;

  void Run(dcerpc::ISecurityContext& initiator, dcerpc::ISecurityContext& acceptor) {
    constexpr std::size_t MaxLegs = 8;
    dcerpc::bytes_t token = initiator.Step({});
    while (toAcceptor.size() < MaxLegs) {
      toAcceptor.push_back(token);
      token = acceptor.Step(token);
      toInitiator.push_back(token);
      if (token.empty() && initiator.IsEstablished())
        break;
      token = initiator.Step(token);
      if (token.empty() && acceptor.IsEstablished())
        break;
    }
    EXPECT_TRUE(initiator.IsEstablished());
    EXPECT_TRUE(acceptor.IsEstablished());
  }
};

/// A fragment of the form of a request: 24 bytes of header, the stub, 8 bytes of trailer, the auth_value.
struct Message {
  static constexpr std::size_t HeaderSize = 24;
  static constexpr std::size_t TrailerSize = 8;

  Message(const std::string& stub, std::size_t authSize, bool headerSigned)
      : bytes(HeaderSize + stub.size() + TrailerSize + authSize),
        stubSize(stub.size()),
        signature(authSize),
        signedHeader(headerSigned) {
    for (std::size_t i = 0; i < HeaderSize; ++i)
      bytes[i] = static_cast<std::uint8_t>(i + 1);
    std::copy(stub.begin(), stub.end(), bytes.begin() + HeaderSize);
    for (std::size_t i = 0; i < TrailerSize; ++i)
      bytes[HeaderSize + stub.size() + i] = static_cast<std::uint8_t>(0x80 + i);
  }
  dcerpc::SFragment Fragment() { return {bytes, HeaderSize, stubSize, signature, signedHeader}; }
  std::string Stub() const {
    return {bytes.begin() + HeaderSize, bytes.begin() + HeaderSize + static_cast<long>(stubSize)};
  }

  dcerpc::bytes_t bytes;
  std::size_t stubSize;
  std::size_t signature;
  bool signedHeader;
};

inline Message Protected(dcerpc::ISecurityContext& sender, const std::string& stub, bool headerSigned) {
  Message message(stub, sender.SignatureSize(stub.size()), headerSigned);
  sender.Protect(message.Fragment());
  return message;
}

/// Messages of several sizes go both ways, interleaved; with Privacy no stub is readable on the way.
inline void ExpectTalk(dcerpc::ISecurityContext& one, dcerpc::ISecurityContext& other, bool headerSigned,
                       bool encrypted) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{16}, std::size_t{32}, std::size_t{4096}, std::size_t{64}}) {
    const std::string stub(size, 'x');
    for (auto [sender, receiver] : {std::pair(&one, &other), std::pair(&other, &one), std::pair(&one, &other)}) {
      Message message = Protected(*sender, stub, headerSigned);
      EXPECT_EQ(encrypted && size != 0, message.Stub() != stub) << size;
      ASSERT_NO_THROW(receiver->Unprotect(message.Fragment())) << size;
      EXPECT_EQ(message.Stub(), stub);
    }
  }
}

/// Settings of Kerberos that ask no name service and no network.
inline constexpr char QuietKerberos[] =
    "[libdefaults]\n"
    "default_realm = KELVO.TEST\n"
    "dns_canonicalize_hostname = false\n"
    "rdns = false\n"
    "dns_lookup_kdc = false\n"
    "dns_lookup_realm = false\n"
    "udp_preference_limit = 1\n";

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush())
    throw std::runtime_error("cannot write " + path);
}

}  // namespace test
