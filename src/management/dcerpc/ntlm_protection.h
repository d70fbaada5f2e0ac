// Message protection with a session key of NTLM.
#pragma once

#include <array>
#include <cstdint>

#include "management/dcerpc/message_protection.h"
#include "management/dcerpc/rc4.h"

namespace dcerpc {

/// The end of a connection that a context stands for.
enum class side_t : std::uint8_t { Initiator, Acceptor };

/// The bits of NegotiateFlags that matter here (MS-NLMP 2.2.2.5).
namespace ntlm_flags {
inline constexpr std::uint32_t Sign = 0x00000010;
inline constexpr std::uint32_t Seal = 0x00000020;
inline constexpr std::uint32_t ExtendedSessionSecurity = 0x00080000;
inline constexpr std::uint32_t Key128 = 0x20000000;
inline constexpr std::uint32_t KeyExchange = 0x40000000;
}  // namespace ntlm_flags

/// Signatures and encryption with extended session security, 128-bit keys and key exchange (MS-NLMP 3.4), over
/// fragments as MS-RPCE has it: the signature covers the whole PDU but itself, in plain text; Privacy encrypts the
/// stub.
class CNtlmProtection : public IMessageProtection {
 public:
  static constexpr std::size_t KeySize = 16;
  static constexpr std::size_t SignatureLength = 16;

  /// The numbers of the first message of each direction: 1 where the handshake already signed something, else 0.
  struct SFirstNumbers {
    std::uint32_t send = 0;
    std::uint32_t receive = 0;
  };

  /// Throws exc::runtime_exc_t when the key has another size than KeySize.
  CNtlmProtection(side_t side, auth_level_t level, bytes_view_t sessionKey, SFirstNumbers numbers);

  std::size_t SignatureSize(std::size_t stubSize) const override;
  void Protect(const SFragment& fragment) override;
  void Unprotect(const SFragment& fragment) override;

 private:
  using digest_t = std::array<std::uint8_t, 16>;
  struct SDirection {
    SDirection(bytes_view_t sessionKey, side_t sender, std::uint32_t firstNumber);
    digest_t Mac(bytes_view_t covered) const;

    digest_t signKey;
    CRc4 cipher;
    std::uint32_t number;
  };

  const bool encrypts_;
  SDirection send_;
  SDirection receive_;
};

}  // namespace dcerpc
