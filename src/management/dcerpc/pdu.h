// The PDUs of the connection-oriented protocol (C706, chapter 12), for both sides.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "management/dcerpc/rpc_interface.h"
#include "management/dcerpc/security_context.h"

namespace dcerpc {

inline constexpr std::uint8_t ProtocolVersion = 5;
/// The common header, bytes.
inline constexpr std::size_t HeaderSize = 16;
/// The security trailer before the auth_value, bytes.
inline constexpr std::size_t TrailerSize = 8;
/// What every implementation can receive, and what none here sends more than in one request or response, bytes.
inline constexpr std::uint16_t MinFragmentSize = 1432;
inline constexpr std::uint16_t MaxFragmentSize = 5840;

enum class pdu_type_t : std::uint8_t {
  Request = 0,
  Response = 2,
  Fault = 3,
  Bind = 11,
  BindAck = 12,
  BindNak = 13,
  AlterContext = 14,
  AlterContextResponse = 15,
  Auth3 = 16,
  Cancel = 18,
  Orphaned = 19,
};

/// Bits of the header's flags. SupportHeaderSign is one of bind and alter_context and of their answers.
namespace pdu_flag {
inline constexpr std::uint8_t First = 0x01;
inline constexpr std::uint8_t Last = 0x02;
inline constexpr std::uint8_t SupportHeaderSign = 0x04;
inline constexpr std::uint8_t DidNotExecute = 0x20;
inline constexpr std::uint8_t Maybe = 0x40;
inline constexpr std::uint8_t ObjectUuid = 0x80;
}  // namespace pdu_flag

/// NDR 2.0, the only transfer syntax that is spoken here.
inline constexpr SSyntaxId NdrSyntax{
    {{0x8a, 0x88, 0x5d, 0x04, 0x1c, 0xeb, 0x11, 0xc9, 0x9f, 0xe8, 0x08, 0x00, 0x2b, 0x10, 0x48, 0x60}}, 2};

struct SPduHeader {
  std::uint8_t version = ProtocolVersion;
  std::uint8_t minorVersion = 0;
  pdu_type_t type = pdu_type_t::Request;
  std::uint8_t flags = pdu_flag::First | pdu_flag::Last;
  byte_order_t order = byte_order_t::Little;
  /// The whole PDU with header and auth_value, bytes; set by the encoders.
  std::uint16_t fragmentLength = 0;
  /// The auth_value, bytes; set by the encoders.
  std::uint16_t authLength = 0;
  std::uint32_t callId = 0;

  bool operator==(const SPduHeader&) const = default;
};

struct SAuthTrailer {
  auth_type_t type = auth_type_t::None;
  auth_level_t level = auth_level_t::None;
  /// Padding between body and trailer, bytes; set by the encoders.
  std::uint8_t padLength = 0;
  std::uint32_t contextId = 0;

  bool operator==(const SAuthTrailer&) const = default;
};

/// A received PDU taken apart. Points into the bytes that it was parsed from.
struct SPdu {
  SPduHeader header;
  bytes_view_t bytes;
  /// Between header and trailer, without the padding.
  bytes_view_t body;
  /// There exactly when header.authLength is not 0.
  std::optional<SAuthTrailer> trailer;
  bytes_view_t authValue;
};

/// The header of at least HeaderSize bytes: the first ones of a PDU, of which more may be on the way. Looks at nothing
/// but itself; an unknown version or type is the caller's to refuse. Throws runtime_exc_t for fewer bytes, for an
/// unknown order of integers and for a fragment length below HeaderSize.
SPduHeader DecodeHeader(bytes_view_t bytes);

/// Takes one whole PDU apart. Throws runtime_exc_t unless its lengths fit each other and the bytes that are there.
SPdu ParsePdu(bytes_view_t bytes);

struct SPresentationContext {
  std::uint16_t id = 0;
  SSyntaxId abstractSyntax;
  std::vector<SSyntaxId> transferSyntaxes;

  bool operator==(const SPresentationContext&) const = default;
};

/// bind and alter_context.
struct SBind {
  std::uint16_t maxTransmit = MaxFragmentSize;
  std::uint16_t maxReceive = MaxFragmentSize;
  std::uint32_t associationGroup = 0;
  std::vector<SPresentationContext> contexts;

  bool operator==(const SBind&) const = default;
};

/// The answer to one presentation context.
struct SContextResult {
  static constexpr std::uint16_t Acceptance = 0;
  static constexpr std::uint16_t ProviderRejection = 2;
  /// The answer to the negotiation of features; `reason` holds the bits of those that are agreed.
  static constexpr std::uint16_t NegotiateAck = 3;
  static constexpr std::uint16_t AbstractSyntaxNotSupported = 1;
  static constexpr std::uint16_t TransferSyntaxesNotSupported = 2;
  static constexpr std::uint16_t LocalLimitExceeded = 3;

  std::uint16_t result = Acceptance;
  std::uint16_t reason = 0;
  SSyntaxId transferSyntax;

  bool operator==(const SContextResult&) const = default;
};

/// bind_ack and alter_context_resp.
struct SBindAck {
  std::uint16_t maxTransmit = MaxFragmentSize;
  std::uint16_t maxReceive = MaxFragmentSize;
  std::uint32_t associationGroup = 0;
  /// The server's port or path, without the NUL of the wire; empty in an alter_context_resp.
  std::string secondaryAddress;
  std::vector<SContextResult> results;

  bool operator==(const SBindAck&) const = default;
};

struct SBindNak {
  static constexpr std::uint16_t ReasonNotSpecified = 0;
  static constexpr std::uint16_t VersionNotSupported = 4;
  static constexpr std::uint16_t AuthenticationRefused = 8;

  std::uint16_t reason = ReasonNotSpecified;
  /// Major and minor number of each version that the server speaks.
  std::vector<std::pair<std::uint8_t, std::uint8_t>> versions;

  bool operator==(const SBindNak&) const = default;
};

struct SRequest {
  /// A hint alone: nothing may be sized by it.
  std::uint32_t allocHint = 0;
  std::uint16_t contextId = 0;
  std::uint16_t opnum = 0;
  std::optional<platform::GUID> object;
  bytes_view_t stub;
};

struct SResponse {
  std::uint32_t allocHint = 0;
  std::uint16_t contextId = 0;
  std::uint8_t cancelCount = 0;
  bytes_view_t stub;
};

struct SFault {
  std::uint16_t contextId = 0;
  std::uint8_t cancelCount = 0;
  std::uint32_t status = 0;

  bool operator==(const SFault&) const = default;
};

/// A token on its way in a bind, alter_context, auth3 or one of the answers; padLength is the encoder's.
struct SToken {
  SAuthTrailer trailer;
  bytes_t value;
};

/// Decoders of bodies. The type of the PDU is the caller's to check. Each throws runtime_exc_t for a body that ends
/// early; what follows the last field is ignored. Views point into the PDU. The stubs of protected fragments are
/// first to be freed of their protection: fragments.h.
SBind DecodeBind(const SPdu& pdu);
SBindAck DecodeBindAck(const SPdu& pdu);
SBindNak DecodeBindNak(const SPdu& pdu);
SRequest DecodeRequest(const SPdu& pdu);
SResponse DecodeResponse(const SPdu& pdu);
SFault DecodeFault(const SPdu& pdu);

/// Encoders of whole PDUs, little-endian whatever header.order says. `type` tells the two kinds apart that share a
/// body; a token without bytes is left out. Each throws runtime_exc_t for what one PDU cannot hold.
bytes_t EncodeBind(SPduHeader header, const SBind& bind, const std::optional<SToken>& token);
bytes_t EncodeBindAck(SPduHeader header, const SBindAck& ack, const std::optional<SToken>& token);
bytes_t EncodeBindNak(SPduHeader header, const SBindNak& nak);
bytes_t EncodeAuth3(SPduHeader header, const SToken& token);
bytes_t EncodeFault(SPduHeader header, const SFault& fault);
/// cancel and orphaned: a header alone.
bytes_t EncodeEmpty(SPduHeader header);

/// One fragment of a request or response up to where its stub begins; the object sets its flag. The lengths in it are
/// still 0: SetLengths.
bytes_t EncodeRequestHead(SPduHeader header, const SRequest& request);
bytes_t EncodeResponseHead(SPduHeader header, const SResponse& response);
/// Writes the length of the PDU, which is what is there, and that of its auth_value.
void SetLengths(bytes_t& pdu, std::size_t authLength);
/// Pads with zeros and appends a security trailer, which tells the padding.
void AppendTrailer(bytes_t& pdu, SAuthTrailer trailer, std::size_t padding);

}  // namespace dcerpc
