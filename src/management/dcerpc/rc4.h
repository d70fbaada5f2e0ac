// The stream cipher of NTLM's message protection.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace dcerpc {

/// RC4 (RFC 6229 has its test vectors). Encrypting and decrypting are the same; the state goes on from call to call.
class CRc4 {
 public:
  /// The key has 1 to 256 bytes.
  explicit CRc4(std::span<const std::uint8_t> key);
  void Apply(std::span<std::uint8_t> bytes);

 private:
  std::array<std::uint8_t, 256> state_{};
  std::uint8_t i_ = 0;
  std::uint8_t j_ = 0;
};

}  // namespace dcerpc
