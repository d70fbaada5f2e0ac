// The server's side of one association.
#pragma once

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/byte_budget.h"
#include "management/dcerpc/fragments.h"
#include "management/dcerpc/pdu.h"
#include "management/dcerpc/rpc_interface.h"
#include "management/dcerpc/security_context.h"

namespace dcerpc {

/// The most of one request's stub that is put together from its fragments, bytes. It holds an argument of 100 MiB in
/// UTF-16; a larger request gets the fault NoMemory.
inline constexpr std::size_t MaxRequestStub = std::size_t{256} << 20;

/// The most of all such stubs at once, bytes: those of callers who proved who they are, and those of all others, who
/// cannot take anything away from the former.
inline constexpr std::size_t KnownCallersBudget = std::size_t{1} << 30;
inline constexpr std::size_t UnknownCallersBudget = std::size_t{64} << 20;

/// What the associations of a listener have in common. Constant once the first of them was made.
struct SAssociationSettings {
  std::vector<boost::shared_ptr<IRpcInterface>> interfaces;
  /// None: a peer that brings a token is refused.
  boost::shared_ptr<ISecurityProvider> security;
  /// The port or path that bind_ack tells.
  std::string secondaryAddress;
  std::size_t maxRequestStub = MaxRequestStub;
  boost::shared_ptr<io::byte_budget_t> knownBudget = boost::make_shared<io::byte_budget_t>(KnownCallersBudget);
  boost::shared_ptr<io::byte_budget_t> unknownBudget = boost::make_shared<io::byte_budget_t>(UnknownCallersBudget);
};

/// The state of one connection, without the connection: takes PDUs, runs the calls in them one after the other, and
/// gives the answers to a sink. One thread.
class CAssociation {
 public:
  /// `caller` is what the transport knows of the peer; a security context adds to it. What the sink throws passes
  /// through Receive. The settings outlive the association.
  CAssociation(const SAssociationSettings& settings, SCaller caller, pdu_sink_t send);
  CAssociation(const CAssociation&) = delete;
  CAssociation& operator=(const CAssociation&) = delete;

  /// Takes one PDU, as long as its header tells; its stub is decrypted in place. False when the connection is to be
  /// closed once what was given to the sink is sent.
  bool Receive(std::span<std::uint8_t> bytes);

  /// The caller of the calls that come now.
  const SCaller& Caller() const { return caller_; }
  /// A bind was accepted.
  bool IsBound() const { return bound_; }
  /// The first fragments of a request have come and its last has not.
  bool IsInRequest() const { return partial_.has_value() || discarded_.has_value(); }

 private:
  enum class security_state_t { None, Pending, Established, Failed };

  /// A call as its first fragment tells it.
  struct call_t {
    SPduHeader header;
    std::uint16_t contextId = 0;
    std::uint16_t opnum = 0;
  };
  struct partial_t {
    call_t call;
    bytes_t stub;
    io::byte_share_t share;
  };

  bool Dispatch(std::span<std::uint8_t> bytes, const SPdu& pdu);
  bool OnBind(const SPdu& pdu);
  void OnAlterContext(const SPdu& pdu);
  void OnAuth3(const SPdu& pdu);
  bool OnRequest(std::span<std::uint8_t> bytes, const SPdu& pdu);
  bool OnCancel(std::span<std::uint8_t> bytes, const SPdu& pdu);

  SBindAck Negotiate(const SPdu& pdu);
  SContextResult Judge(const SPresentationContext& context);
  boost::shared_ptr<IRpcInterface> FindInterface(const SSyntaxId& syntax) const;

  std::optional<SToken> Authenticate(const SPdu& pdu);
  /// The answer to the PDU's token, if it brings one; false when the peer is refused, which is remembered.
  bool TryAuthenticate(const SPdu& pdu, std::optional<SToken>& answer);
  void BeginAuthentication(const SAuthTrailer& trailer);
  void Establish();
  void FailAuthentication(const std::exception& failure);
  bool IsOwnTrailer(const SAuthTrailer& trailer) const;
  std::uint32_t CheckVerifier(std::span<std::uint8_t> bytes, const SPdu& pdu);

  void TakeFragment(const SPdu& pdu, const SRequest& request);
  bool Append(bytes_view_t stub);
  void Execute(const call_t& call, bytes_view_t stub);
  void Refuse(const SPduHeader& header, std::uint16_t contextId, std::uint32_t status);
  void SendFault(const SPduHeader& header, std::uint16_t contextId, std::uint32_t status, std::uint8_t flags);
  void SendBindNak(const SPduHeader& header, std::uint16_t reason);

  const SAssociationSettings& settings_;
  const pdu_sink_t send_;
  /// The caller as the transport knows it.
  const SCaller peer_;
  SCaller caller_;

  bool bound_ = false;
  std::uint32_t group_ = 0;
  std::size_t maxSend_ = MinFragmentSize;
  std::map<std::uint16_t, boost::shared_ptr<IRpcInterface>> contexts_;

  security_state_t securityState_ = security_state_t::None;
  std::unique_ptr<ISecurityContext> security_;
  SProtection protection_;

  std::optional<partial_t> partial_;
  /// The call whose remaining fragments are dropped, for it is answered already.
  std::optional<std::uint32_t> discarded_;
};

}  // namespace dcerpc
