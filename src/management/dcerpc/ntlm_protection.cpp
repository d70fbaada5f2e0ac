#include "management/dcerpc/ntlm_protection.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <string_view>

#include "foundation/exc.h"

namespace dcerpc {
namespace {

using namespace std::string_view_literals;

using digest_t = std::array<std::uint8_t, 16>;

constexpr std::uint32_t SignatureVersion = 1;
constexpr std::size_t ChecksumOffset = 4;
constexpr std::size_t ChecksumSize = 8;
constexpr std::size_t NumberOffset = 12;

// The zero byte at the end of each constant belongs to it.
constexpr std::string_view ClientSigning = "session key to client-to-server signing key magic constant\0"sv;
constexpr std::string_view ServerSigning = "session key to server-to-client signing key magic constant\0"sv;
constexpr std::string_view ClientSealing = "session key to client-to-server sealing key magic constant\0"sv;
constexpr std::string_view ServerSealing = "session key to server-to-client sealing key magic constant\0"sv;

void PutU32(std::span<std::uint8_t> bytes, std::uint32_t number) {
  for (std::size_t i = 0; i < sizeof number; ++i)
    bytes[i] = static_cast<std::uint8_t>(number >> (8 * i));
}

std::uint32_t GetU32(bytes_view_t bytes) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < sizeof number; ++i)
    number |= static_cast<std::uint32_t>(bytes[i]) << (8 * i);
  return number;
}

digest_t DeriveKey(bytes_view_t sessionKey, std::string_view constant) {
  bytes_t text(sessionKey.begin(), sessionKey.end());
  text.insert(text.end(), constant.begin(), constant.end());
  digest_t key{};
  if (EVP_Digest(text.data(), text.size(), key.data(), nullptr, EVP_md5(), nullptr) != 1)
    throw exc::runtime_exc_t("MD5 is not available; NTLM cannot protect messages without it.");
  OPENSSL_cleanse(text.data(), text.size());
  return key;
}

bytes_view_t CheckedKey(bytes_view_t key) {
  if (key.size() != CNtlmProtection::KeySize)
    throw exc::runtime_exc_t("The session key of NTLM has %1 bytes.", key.size());
  return key;
}

}  // namespace

CNtlmProtection::SDirection::SDirection(bytes_view_t sessionKey, side_t sender, std::uint32_t firstNumber)
    : signKey(DeriveKey(sessionKey, sender == side_t::Initiator ? ClientSigning : ServerSigning)),
      cipher(DeriveKey(sessionKey, sender == side_t::Initiator ? ClientSealing : ServerSealing)),
      number(firstNumber) {}

CNtlmProtection::digest_t CNtlmProtection::SDirection::Mac(bytes_view_t covered) const {
  bytes_t text(sizeof number + covered.size());
  PutU32(text, number);
  std::copy(covered.begin(), covered.end(), text.begin() + sizeof number);
  digest_t mac{};
  if (HMAC(EVP_md5(), signKey.data(), static_cast<int>(signKey.size()), text.data(), text.size(), mac.data(),
           nullptr) == nullptr)
    throw exc::runtime_exc_t("HMAC-MD5 is not available; NTLM cannot protect messages without it.");
  return mac;
}

CNtlmProtection::CNtlmProtection(side_t side, auth_level_t level, bytes_view_t sessionKey, SFirstNumbers numbers)
    : encrypts_(level == auth_level_t::Privacy),
      send_(CheckedKey(sessionKey), side, numbers.send),
      receive_(sessionKey, side == side_t::Initiator ? side_t::Acceptor : side_t::Initiator, numbers.receive) {}

std::size_t CNtlmProtection::SignatureSize(std::size_t) const {
  return SignatureLength;
}

void CNtlmProtection::Protect(const SFragment& fragment) {
  const SFragmentParts parts = SplitFragment(fragment);
  if (parts.auth.size() != SignatureLength)
    throw exc::runtime_exc_t("A fragment leaves %1 bytes for a signature of NTLM.", parts.auth.size());
  const digest_t mac = send_.Mac(parts.covered);
  // The one key stream runs over the stub first, then over the checksum.
  if (encrypts_)
    send_.cipher.Apply(parts.stub);
  PutU32(parts.auth, SignatureVersion);
  const std::span<std::uint8_t> checksum = parts.auth.subspan(ChecksumOffset, ChecksumSize);
  std::copy_n(mac.begin(), ChecksumSize, checksum.begin());
  send_.cipher.Apply(checksum);
  PutU32(parts.auth.subspan(NumberOffset), send_.number);
  ++send_.number;
}

void CNtlmProtection::Unprotect(const SFragment& fragment) {
  const SFragmentParts parts = SplitFragment(fragment);
  if (parts.auth.size() != SignatureLength)
    throw exc::runtime_exc_t("A signature of NTLM has %1 bytes.", parts.auth.size());
  if (GetU32(parts.auth) != SignatureVersion)
    throw exc::runtime_exc_t("A signature of NTLM has the version %1.", GetU32(parts.auth));
  if (GetU32(parts.auth.subspan(NumberOffset)) != receive_.number)
    throw exc::runtime_exc_t("A fragment has the number %1 where %2 is next.", GetU32(parts.auth.subspan(NumberOffset)),
                             receive_.number);
  if (encrypts_)
    receive_.cipher.Apply(parts.stub);
  const digest_t mac = receive_.Mac(parts.covered);
  std::array<std::uint8_t, ChecksumSize> checksum{};
  std::copy_n(parts.auth.begin() + ChecksumOffset, ChecksumSize, checksum.begin());
  receive_.cipher.Apply(checksum);
  if (CRYPTO_memcmp(checksum.data(), mac.data(), ChecksumSize) != 0)
    throw exc::runtime_exc_t("The signature of a fragment is wrong.");
  ++receive_.number;
}

}  // namespace dcerpc
