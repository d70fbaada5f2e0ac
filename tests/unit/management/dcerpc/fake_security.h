// Authentication without cryptography, for tests.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "management/dcerpc/security_context.h"

namespace test {

inline dcerpc::bytes_t Bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

/// The accepting side knows the tokens "hello", which "challenge" answers, and "proof", which ends the handshake;
/// "hello alone" ends it at once, with the answer "welcome"; "proof with more" answers "one more" at the end. Anything
/// else is refused. An established context of either side signs with a sum and a sequence number, and hides with a
/// mask.
class FakeSecurityContext : public dcerpc::ISecurityContext {
 public:
  static constexpr std::size_t SignatureBytes = 12;

  explicit FakeSecurityContext(dcerpc::auth_level_t level, bool established = false)
      : level_(level), established_(established) {}

  dcerpc::bytes_t Step(dcerpc::bytes_view_t token) override {
    const std::string text(token.begin(), token.end());
    if (text == "hello" && !challenged_) {
      challenged_ = true;
      return Bytes("challenge");
    }
    if (text == "hello alone" && !challenged_) {
      established_ = true;
      return Bytes("welcome");
    }
    if (challenged_ && (text == "proof" || text == "proof with more")) {
      established_ = true;
      return text == "proof" ? dcerpc::bytes_t() : Bytes("one more");
    }
    throw exc::runtime_exc_t("The token is not good.");
  }
  bool IsEstablished() const override { return established_; }
  std::size_t SignatureSize(std::size_t) const override { return SignatureBytes; }

  void Protect(const dcerpc::SFragment& fragment) override {
    Sign(fragment, sendSequence_++, fragment.pdu.last(fragment.authSize));
    Mask(fragment);
  }
  void Unprotect(const dcerpc::SFragment& fragment) override {
    Mask(fragment);
    std::array<std::uint8_t, SignatureBytes> expected{};
    if (fragment.authSize != SignatureBytes)
      throw exc::runtime_exc_t("The signature has a wrong size.");
    Sign(fragment, receiveSequence_++, expected);
    const auto signature = fragment.pdu.last(fragment.authSize);
    if (!std::equal(expected.begin(), expected.end(), signature.begin()))
      throw exc::runtime_exc_t("The signature is wrong.");
  }

  std::string PeerName() const override { return "REALM\\peer"; }
  std::string PeerAccount() const override { return "peer"; }

 private:
  void Mask(const dcerpc::SFragment& fragment) const {
    constexpr std::uint8_t Pattern = 0x5a;
    if (level_ != dcerpc::auth_level_t::Privacy)
      return;
    for (std::uint8_t& byte : fragment.pdu.subspan(fragment.stubOffset, fragment.stubSize))
      byte ^= Pattern;
  }
  static void Sign(const dcerpc::SFragment& fragment, std::uint32_t sequence, std::span<std::uint8_t> signature) {
    const auto covered = fragment.headerSigned ? fragment.pdu.first(fragment.pdu.size() - fragment.authSize)
                                               : fragment.pdu.subspan(fragment.stubOffset, fragment.stubSize);
    std::uint64_t sum = fragment.headerSigned ? 1 : 2;
    for (const std::uint8_t byte : covered)
      sum = sum * 31 + byte;
    for (std::size_t i = 0; i < 8; ++i)
      signature[i] = static_cast<std::uint8_t>(sum >> (8 * i));
    for (std::size_t i = 0; i < 4; ++i)
      signature[8 + i] = static_cast<std::uint8_t>(sequence >> (8 * i));
  }

  const dcerpc::auth_level_t level_;
  bool challenged_ = false;
  bool established_;
  std::uint32_t sendSequence_ = 0;
  std::uint32_t receiveSequence_ = 0;
};

/// Knows the authentication types that it is given.
class FakeSecurityProvider : public dcerpc::ISecurityProvider {
 public:
  explicit FakeSecurityProvider(std::set<dcerpc::auth_type_t> types = {dcerpc::auth_type_t::Negotiate,
                                                                       dcerpc::auth_type_t::Ntlm,
                                                                       dcerpc::auth_type_t::Kerberos})
      : types_(std::move(types)) {}

  std::unique_ptr<dcerpc::ISecurityContext> Accept(dcerpc::auth_type_t type, dcerpc::auth_level_t level) override {
    if (!types_.contains(type))
      throw exc::runtime_exc_t("Type %1 is not there.", static_cast<unsigned>(type));
    return std::make_unique<FakeSecurityContext>(level);
  }

 private:
  const std::set<dcerpc::auth_type_t> types_;
};

}  // namespace test
