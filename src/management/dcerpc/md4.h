// The digest that NTLM keeps of a password.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace dcerpc {

using md4_digest_t = std::array<std::uint8_t, 16>;

/// MD4 (RFC 1320). Proves nothing; it is what NTLM has.
md4_digest_t Md4(std::span<const std::uint8_t> bytes);

}  // namespace dcerpc
