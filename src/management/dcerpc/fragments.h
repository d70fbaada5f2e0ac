// Requests and responses in fragments, for both sides: cutting, protection of each fragment, and its removal.
#pragma once

#include <cstdint>
#include <functional>

#include "management/dcerpc/pdu.h"

namespace dcerpc {

/// Takes one PDU on its way to the peer.
using pdu_sink_t = std::function<void(bytes_view_t)>;

/// How the fragments of an association are protected. With a level below Packet, or without a context, they are not.
struct SProtection {
  /// Established; outlives the protection.
  ISecurityContext* context = nullptr;
  auth_type_t type = auth_type_t::None;
  auth_level_t level = auth_level_t::None;
  std::uint32_t contextId = 0;
  /// Both sides announced that header and trailer are covered, too.
  bool headerSigned = false;

  bool IsOn() const { return context != nullptr && level >= auth_level_t::Packet; }
};

/// Cuts the request's stub into fragments of at most maxFragment bytes (no less than MinFragmentSize is used),
/// protects each, and gives them to the sink one by one. The allocation hints are set here.
void SendRequest(const SPduHeader& header, const SRequest& request, std::size_t maxFragment,
                 const SProtection& protection, const pdu_sink_t& send);
/// As SendRequest, for a response.
void SendResponse(const SPduHeader& header, const SResponse& response, std::size_t maxFragment,
                  const SProtection& protection, const pdu_sink_t& send);

/// What Unprotect found.
enum class protection_result_t {
  Good,
  /// There is no verifier, or it is one of another type, level or context.
  NoVerifier,
  /// The verifier is wrong, or the stub is not what it was made for.
  WrongSignature,
};

/// Checks the protection of a received fragment of any type and decrypts the stub, which begins at `stubOffset`, in
/// place: in `bytes`, which `pdu` was parsed from. Call it only with a protection that is on.
protection_result_t Unprotect(std::span<std::uint8_t> bytes, const SPdu& pdu, std::size_t stubOffset,
                              const SProtection& protection);

/// Where the stub of a request or response begins, as its header tells.
std::size_t StubOffset(const SPduHeader& header);

}  // namespace dcerpc
