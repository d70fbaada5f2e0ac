#include "management/dcerpc/fragments.h"

#include <algorithm>

#include "foundation/log.h"

namespace dcerpc {
namespace {

/// Suits every mechanism that is served.
constexpr std::size_t StubBoundary = 16;
constexpr std::size_t PlainHeadSize = 24;

std::size_t Padding(std::size_t stubSize) {
  return (StubBoundary - stubSize % StubBoundary) % StubBoundary;
}

/// The most of a stub that one fragment takes.
std::size_t StubLimit(std::size_t headSize, std::size_t maxFragment, const SProtection& protection) {
  const std::size_t room = std::max<std::size_t>(maxFragment, MinFragmentSize) - headSize;
  if (!protection.IsOn())
    return room;
  const std::size_t signature = protection.context->SignatureSize(room);
  if (room < TrailerSize + signature + StubBoundary)
    throw exc::runtime_exc_t("A verifier of %1 bytes leaves no room in a fragment.", signature);
  return (room - TrailerSize - signature) / StubBoundary * StubBoundary;
}

void SendFragment(bytes_t pdu, bytes_view_t stub, const SProtection& protection, const pdu_sink_t& send) {
  const std::size_t stubOffset = pdu.size();
  pdu.insert(pdu.end(), stub.begin(), stub.end());
  if (!protection.IsOn()) {
    SetLengths(pdu, 0);
    send(pdu);
    return;
  }
  const std::size_t padding = Padding(stub.size());
  const std::size_t stubSize = stub.size() + padding;
  const std::size_t signature = protection.context->SignatureSize(stubSize);
  AppendTrailer(pdu, {protection.type, protection.level, 0, protection.contextId}, padding);
  pdu.resize(pdu.size() + signature);
  SetLengths(pdu, signature);
  protection.context->Protect({pdu, stubOffset, stubSize, signature, protection.headerSigned});
  send(pdu);
}

/// `encodeHead` makes the part before the stub from the flags of the fragment and the bytes of stub still to come.
template <typename EncodeHead>
void SendFragments(bytes_view_t stub, std::size_t headSize, std::size_t maxFragment, const SProtection& protection,
                   const pdu_sink_t& send, const EncodeHead& encodeHead) {
  const std::size_t limit = StubLimit(headSize, maxFragment, protection);
  std::uint8_t flags = pdu_flag::First;
  do {
    const bytes_view_t part = stub.first(std::min(stub.size(), limit));
    if (part.size() == stub.size())
      flags |= pdu_flag::Last;
    SendFragment(encodeHead(flags, static_cast<std::uint32_t>(stub.size())), part, protection, send);
    stub = stub.subspan(part.size());
    flags &= static_cast<std::uint8_t>(~pdu_flag::First);
  } while ((flags & pdu_flag::Last) == 0);
}

std::uint8_t WithoutEnds(std::uint8_t flags) {
  return flags & static_cast<std::uint8_t>(~(pdu_flag::First | pdu_flag::Last));
}

}  // namespace

void SendRequest(const SPduHeader& header, const SRequest& request, std::size_t maxFragment,
                 const SProtection& protection, const pdu_sink_t& send) {
  const std::size_t headSize = PlainHeadSize + (request.object ? sizeof(platform::GUID) : 0);
  SendFragments(request.stub, headSize, maxFragment, protection, send, [&](std::uint8_t ends, std::uint32_t left) {
    SPduHeader fragmentHeader = header;
    fragmentHeader.type = pdu_type_t::Request;
    fragmentHeader.flags = WithoutEnds(header.flags) | ends;
    SRequest fragment = request;
    fragment.allocHint = left;
    return EncodeRequestHead(fragmentHeader, fragment);
  });
}

void SendResponse(const SPduHeader& header, const SResponse& response, std::size_t maxFragment,
                  const SProtection& protection, const pdu_sink_t& send) {
  SendFragments(response.stub, PlainHeadSize, maxFragment, protection, send,
                [&](std::uint8_t ends, std::uint32_t left) {
                  SPduHeader fragmentHeader = header;
                  fragmentHeader.type = pdu_type_t::Response;
                  fragmentHeader.flags = WithoutEnds(header.flags) | ends;
                  SResponse fragment = response;
                  fragment.allocHint = left;
                  return EncodeResponseHead(fragmentHeader, fragment);
                });
}

protection_result_t Unprotect(std::span<std::uint8_t> bytes, const SPdu& pdu, std::size_t stubOffset,
                              const SProtection& protection) {
  if (!pdu.trailer || pdu.trailer->type != protection.type || pdu.trailer->level != protection.level ||
      pdu.trailer->contextId != protection.contextId)
    return protection_result_t::NoVerifier;
  const std::size_t stubEnd = bytes.size() - TrailerSize - pdu.authValue.size();
  // The padding counts from the stub: in front of it there is none to take away.
  if (stubEnd < stubOffset + pdu.trailer->padLength)
    return protection_result_t::WrongSignature;
  try {
    protection.context->Unprotect(
        {bytes, stubOffset, stubEnd - stubOffset, pdu.authValue.size(), protection.headerSigned});
  } catch (const exc::exc_base_t& failure) {
    g_rpc_log.Warning("A protected fragment is refused.", failure);
    return protection_result_t::WrongSignature;
  }
  return protection_result_t::Good;
}

std::size_t StubOffset(const SPduHeader& header) {
  if (header.type != pdu_type_t::Request && header.type != pdu_type_t::Response)
    return HeaderSize;
  const bool hasObject = header.type == pdu_type_t::Request && (header.flags & pdu_flag::ObjectUuid) != 0;
  return PlainHeadSize + (hasObject ? sizeof(platform::GUID) : 0);
}

}  // namespace dcerpc
