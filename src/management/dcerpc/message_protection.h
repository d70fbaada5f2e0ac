// What an established security context does to the fragments of calls.
#pragma once

#include "foundation/exc.h"
#include "management/dcerpc/security_context.h"

namespace dcerpc {

/// Protects and checks fragments at one of the levels Packet, Integrity, Privacy; both directions keep their own
/// sequence. Used by one thread at a time.
class IMessageProtection {
 public:
  virtual ~IMessageProtection() = default;
  /// As ISecurityContext tells it.
  virtual std::size_t SignatureSize(std::size_t stubSize) const = 0;
  virtual void Protect(const SFragment& fragment) = 0;
  virtual void Unprotect(const SFragment& fragment) = 0;
};

/// The parts of a fragment; they point into its PDU.
struct SFragmentParts {
  std::span<std::uint8_t> header;
  std::span<std::uint8_t> stub;
  std::span<std::uint8_t> trailer;
  std::span<std::uint8_t> auth;
  /// Everything but the auth_value.
  std::span<std::uint8_t> covered;
};

/// Throws exc::runtime_exc_t when the parts do not fit into the PDU.
inline SFragmentParts SplitFragment(const SFragment& fragment) {
  const std::size_t size = fragment.pdu.size();
  if (fragment.authSize > size || fragment.stubOffset > size - fragment.authSize ||
      fragment.stubSize > size - fragment.authSize - fragment.stubOffset)
    throw exc::runtime_exc_t("The parts of a fragment do not fit into it.");
  const std::size_t coveredSize = size - fragment.authSize;
  const std::size_t stubEnd = fragment.stubOffset + fragment.stubSize;
  return {fragment.pdu.first(fragment.stubOffset), fragment.pdu.subspan(fragment.stubOffset, fragment.stubSize),
          fragment.pdu.subspan(stubEnd, coveredSize - stubEnd), fragment.pdu.last(fragment.authSize),
          fragment.pdu.first(coveredSize)};
}

}  // namespace dcerpc
