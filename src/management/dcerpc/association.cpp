#include "management/dcerpc/association.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <new>

#include "foundation/log.h"

namespace dcerpc {
namespace {

constexpr std::uint8_t LastMinorVersion = 1;
/// A client has one for each interface that it calls.
constexpr std::size_t MostContexts = 32;

/// The first half of the "transfer syntax" with which a peer tells its features; their bits are in the next byte
/// ([MS-RPCE] 2.2.2.14).
constexpr std::array<std::uint8_t, 8> FeatureNegotiation{0x6c, 0xb7, 0x1c, 0x2c, 0x98, 0x12, 0x45, 0x40};
/// An orphaned request does not cost the connection: the one feature that is agreed to.
constexpr std::uint16_t KeepConnectionOnOrphan = 0x02;

bool IsFeatureNegotiation(const SSyntaxId& syntax) {
  return std::equal(FeatureNegotiation.begin(), FeatureNegotiation.end(), syntax.uuid.bytes.begin());
}

/// Never 0, which stands for no group.
std::uint32_t NextGroup() {
  static std::atomic<std::uint32_t> last{0};
  std::uint32_t group = 0;
  while (group == 0)
    group = ++last;
  return group;
}

std::uint16_t FragmentSize(std::uint16_t peers) {
  return std::clamp(peers, MinFragmentSize, MaxFragmentSize);
}

SPduHeader AnswerHeader(const SPduHeader& header, pdu_type_t type) {
  SPduHeader answer;
  answer.type = type;
  answer.callId = header.callId;
  return answer;
}

bool IsServedLevel(auth_level_t level) {
  return level == auth_level_t::Connect || level == auth_level_t::Packet || level == auth_level_t::Integrity ||
         level == auth_level_t::Privacy;
}

}  // namespace

CAssociation::CAssociation(const SAssociationSettings& settings, SCaller caller, pdu_sink_t send)
    : settings_(settings), send_(std::move(send)), peer_(std::move(caller)), caller_(peer_) {}

bool CAssociation::Receive(std::span<std::uint8_t> bytes) {
  std::optional<SPduHeader> header;
  try {
    header = DecodeHeader(bytes);
    if (header->version != ProtocolVersion || header->minorVersion > LastMinorVersion) {
      if (header->type == pdu_type_t::Bind)
        SendBindNak(*header, SBindNak::VersionNotSupported);
      return false;
    }
    return Dispatch(bytes, ParsePdu(bytes));
  } catch (const exc::runtime_exc_t& failure) {
    g_rpc_log.Warning("The connection of the management client [%1] is closed.", failure, caller_.origin);
    if (header)
      SendFault(*header, 0, fault::ProtocolError, pdu_flag::DidNotExecute);
    return false;
  }
}

bool CAssociation::Dispatch(std::span<std::uint8_t> bytes, const SPdu& pdu) {
  if (pdu.header.type == pdu_type_t::Bind)
    return OnBind(pdu);
  if (!bound_)
    throw exc::runtime_exc_t("A PDU of type %1 comes before the bind.", static_cast<unsigned>(pdu.header.type));
  switch (pdu.header.type) {
    case pdu_type_t::AlterContext:
      OnAlterContext(pdu);
      return true;
    case pdu_type_t::Auth3:
      OnAuth3(pdu);
      return true;
    case pdu_type_t::Request:
      return OnRequest(bytes, pdu);
    case pdu_type_t::Cancel:
    case pdu_type_t::Orphaned:
      return OnCancel(bytes, pdu);
    default:
      throw exc::runtime_exc_t("A PDU of type %1 is not for a server.", static_cast<unsigned>(pdu.header.type));
  }
}

bool CAssociation::TryAuthenticate(const SPdu& pdu, std::optional<SToken>& answer) {
  if (!pdu.trailer)
    return true;
  try {
    answer = Authenticate(pdu);
    return true;
  } catch (const exc::exc_base_t& failure) {
    FailAuthentication(failure);
    return false;
  }
}

bool CAssociation::OnBind(const SPdu& pdu) {
  if (bound_)
    throw exc::runtime_exc_t("A second bind comes on one connection.");
  SBindAck ack = Negotiate(pdu);
  ack.secondaryAddress = settings_.secondaryAddress;
  std::optional<SToken> answer;
  if (!TryAuthenticate(pdu, answer)) {
    SendBindNak(pdu.header, SBindNak::AuthenticationRefused);
    return false;
  }
  bound_ = true;
  SPduHeader header = AnswerHeader(pdu.header, pdu_type_t::BindAck);
  header.flags |= pdu.header.flags & pdu_flag::SupportHeaderSign;
  send_(EncodeBindAck(header, ack, answer));
  return true;
}

void CAssociation::OnAlterContext(const SPdu& pdu) {
  const SBindAck ack = Negotiate(pdu);
  std::optional<SToken> answer;
  if (!TryAuthenticate(pdu, answer)) {
    SendFault(pdu.header, 0, fault::AccessDenied, pdu_flag::DidNotExecute);
    return;
  }
  SPduHeader header = AnswerHeader(pdu.header, pdu_type_t::AlterContextResponse);
  header.flags |= pdu.header.flags & pdu_flag::SupportHeaderSign;
  send_(EncodeBindAck(header, ack, answer));
}

void CAssociation::OnAuth3(const SPdu& pdu) {
  if (securityState_ == security_state_t::Failed)
    return;
  if (securityState_ != security_state_t::Pending)
    throw exc::runtime_exc_t("An auth3 comes that nothing waits for.");
  try {
    if (!pdu.trailer)
      throw exc::runtime_exc_t("An auth3 comes without a token.");
    // There is no answer to this PDU that could carry one more token.
    if (Authenticate(pdu) || securityState_ != security_state_t::Established)
      throw exc::runtime_exc_t("The authentication does not end with the third leg.");
  } catch (const exc::exc_base_t& failure) {
    securityState_ = security_state_t::Pending;
    FailAuthentication(failure);
  }
}

/// A cancel comes too late, for the call is made before the next PDU is read. A call that is orphaned is one whose end
/// will not come.
bool CAssociation::OnCancel(std::span<std::uint8_t> bytes, const SPdu& pdu) {
  // The peer's sequence of verifiers goes on with it.
  if (pdu.trailer && protection_.IsOn() &&
      Unprotect(bytes, pdu, HeaderSize, protection_) == protection_result_t::WrongSignature)
    return false;
  if (pdu.header.type != pdu_type_t::Orphaned)
    return true;
  if (partial_ && partial_->call.header.callId == pdu.header.callId)
    partial_.reset();
  if (discarded_ == pdu.header.callId)
    discarded_.reset();
  return true;
}

SBindAck CAssociation::Negotiate(const SPdu& pdu) {
  const SBind bind = DecodeBind(pdu);
  if (pdu.header.type == pdu_type_t::Bind) {
    group_ = bind.associationGroup != 0 ? bind.associationGroup : NextGroup();
    maxSend_ = FragmentSize(bind.maxReceive);
  }
  if (securityState_ != security_state_t::Established && (pdu.header.flags & pdu_flag::SupportHeaderSign) != 0)
    protection_.headerSigned = true;
  SBindAck ack;
  ack.maxTransmit = static_cast<std::uint16_t>(maxSend_);
  ack.maxReceive = FragmentSize(bind.maxTransmit);
  ack.associationGroup = group_;
  for (const SPresentationContext& context : bind.contexts)
    ack.results.push_back(Judge(context));
  return ack;
}

SContextResult CAssociation::Judge(const SPresentationContext& context) {
  const std::vector<SSyntaxId>& offered = context.transferSyntaxes;
  if (offered.size() == 1 && IsFeatureNegotiation(offered.front())) {
    const std::uint16_t asked = offered.front().uuid.bytes[FeatureNegotiation.size()];
    return {SContextResult::NegotiateAck, static_cast<std::uint16_t>(asked & KeepConnectionOnOrphan), {}};
  }
  boost::shared_ptr<IRpcInterface> found = FindInterface(context.abstractSyntax);
  if (found == nullptr)
    return {SContextResult::ProviderRejection, SContextResult::AbstractSyntaxNotSupported, {}};
  if (std::find(offered.begin(), offered.end(), NdrSyntax) == offered.end())
    return {SContextResult::ProviderRejection, SContextResult::TransferSyntaxesNotSupported, {}};
  if (contexts_.size() >= MostContexts && !contexts_.contains(context.id))
    return {SContextResult::ProviderRejection, SContextResult::LocalLimitExceeded, {}};
  contexts_[context.id] = std::move(found);
  return {SContextResult::Acceptance, 0, NdrSyntax};
}

/// A peer of the same major version that knows no newer minor one than ours is served.
boost::shared_ptr<IRpcInterface> CAssociation::FindInterface(const SSyntaxId& syntax) const {
  constexpr std::uint32_t MajorMask = 0xffff;
  constexpr int MinorShift = 16;
  for (const boost::shared_ptr<IRpcInterface>& candidate : settings_.interfaces) {
    const SSyntaxId& served = candidate->Id();
    if (served.uuid == syntax.uuid && (served.version & MajorMask) == (syntax.version & MajorMask) &&
        syntax.version >> MinorShift <= served.version >> MinorShift)
      return candidate;
  }
  return {};
}

/// One leg of the handshake. Gives the token of the answer, or nothing when there is none.
std::optional<SToken> CAssociation::Authenticate(const SPdu& pdu) {
  if (securityState_ == security_state_t::None)
    BeginAuthentication(*pdu.trailer);
  if (securityState_ != security_state_t::Pending)
    throw exc::runtime_exc_t("A token comes for a security context that waits for none.");
  if (!IsOwnTrailer(*pdu.trailer))
    throw exc::runtime_exc_t("A token comes for another security context.");
  SToken answer{*pdu.trailer, security_->Step(pdu.authValue)};
  if (security_->IsEstablished())
    Establish();
  if (answer.value.empty())
    return {};
  return answer;
}

void CAssociation::BeginAuthentication(const SAuthTrailer& trailer) {
  // From here on it is a peer that wants to be known: it makes no call as one that is not.
  securityState_ = security_state_t::Pending;
  // Its first fragments came from anyone, and its last one would make it the caller's.
  if (IsInRequest())
    throw exc::runtime_exc_t("A token comes inside of a request.");
  if (settings_.security == nullptr)
    throw exc::runtime_exc_t("Authentication is not offered here.");
  if (!IsServedLevel(trailer.level))
    throw exc::runtime_exc_t("The authentication level %1 is not served.", static_cast<unsigned>(trailer.level));
  security_ = settings_.security->Accept(trailer.type, trailer.level);
  protection_.type = trailer.type;
  protection_.level = trailer.level;
  protection_.contextId = trailer.contextId;
}

void CAssociation::Establish() {
  caller_.principal = security_->PeerName();
  caller_.account = security_->PeerAccount();
  caller_.level = protection_.level;
  caller_.authenticated = true;
  protection_.context = security_.get();
  securityState_ = security_state_t::Established;
}

/// An established context stays what it is, whatever else the peer tries.
void CAssociation::FailAuthentication(const std::exception& failure) {
  g_rpc_log.Warning("The management client [%1] is not authenticated.", failure, caller_.origin);
  if (securityState_ == security_state_t::Established)
    return;
  securityState_ = security_state_t::Failed;
  caller_ = peer_;
}

bool CAssociation::IsOwnTrailer(const SAuthTrailer& trailer) const {
  return trailer.type == protection_.type && trailer.level == protection_.level &&
         trailer.contextId == protection_.contextId;
}

/// Gives the status of the fault that answers the fragment, 0 when it is good.
std::uint32_t CAssociation::CheckVerifier(std::span<std::uint8_t> bytes, const SPdu& pdu) {
  switch (securityState_) {
    case security_state_t::None:
      return pdu.trailer ? fault::AccessDenied : 0;
    case security_state_t::Pending:
    case security_state_t::Failed:
      return fault::AccessDenied;
    case security_state_t::Established:
      break;
  }
  // At the level Connect a verifier proves nothing; some peers send one all the same.
  if (!protection_.IsOn())
    return pdu.trailer && !IsOwnTrailer(*pdu.trailer) ? fault::AccessDenied : 0;
  switch (Unprotect(bytes, pdu, StubOffset(pdu.header), protection_)) {
    case protection_result_t::Good:
      return 0;
    case protection_result_t::NoVerifier:
      return fault::AccessDenied;
    case protection_result_t::WrongSignature:
      break;
  }
  return fault::SecurityPackage;
}

bool CAssociation::OnRequest(std::span<std::uint8_t> bytes, const SPdu& pdu) {
  const SRequest request = DecodeRequest(pdu);
  const std::uint32_t refusal = CheckVerifier(bytes, pdu);
  if (refusal != 0) {
    Refuse(pdu.header, request.contextId, refusal);
    // The verifiers that follow a wrong one could not be right.
    return refusal != fault::SecurityPackage;
  }
  TakeFragment(pdu, request);
  return true;
}

void CAssociation::TakeFragment(const SPdu& pdu, const SRequest& request) {
  const SPduHeader& header = pdu.header;
  const bool isFirst = (header.flags & pdu_flag::First) != 0;
  const bool isLast = (header.flags & pdu_flag::Last) != 0;
  if (!isFirst && discarded_ == header.callId) {
    if (isLast)
      discarded_.reset();
    return;
  }
  if (isFirst) {
    if (partial_)
      throw exc::runtime_exc_t("A request begins before the one in front of it has ended.");
    discarded_.reset();
    if (!contexts_.contains(request.contextId)) {
      Refuse(header, request.contextId, fault::UnknownInterface);
      return;
    }
    const call_t call{header, request.contextId, request.opnum};
    if (isLast) {
      Execute(call, request.stub);
      return;
    }
    partial_.emplace(
        partial_t{call, {}, io::byte_share_t(caller_.authenticated ? settings_.knownBudget : settings_.unknownBudget)});
  } else if (!partial_ || partial_->call.header.callId != header.callId ||
             partial_->call.header.order != header.order) {
    throw exc::runtime_exc_t("A fragment comes that continues no request.");
  }
  if (!Append(request.stub)) {
    Refuse(header, partial_->call.contextId, fault::NoMemory);
    return;
  }
  if (isLast) {
    const partial_t whole = std::move(*partial_);
    partial_.reset();
    Execute(whole.call, whole.stub);
  }
}

bool CAssociation::Append(bytes_view_t stub) {
  if (stub.size() > settings_.maxRequestStub - partial_->stub.size() || !partial_->share.Grow(stub.size()))
    return false;
  try {
    partial_->stub.insert(partial_->stub.end(), stub.begin(), stub.end());
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

void CAssociation::Execute(const call_t& call, bytes_view_t stub) {
  bytes_t result;
  try {
    result = contexts_.at(call.contextId)->Call(call.opnum, stub, call.header.order, caller_);
  } catch (const fault_exc_t& failure) {
    SendFault(call.header, call.contextId, failure.Status(), pdu_flag::DidNotExecute);
    return;
  } catch (const std::exception& failure) {
    g_rpc_log.Error("RPC: the call of operation %1 failed.", failure, call.opnum);
    SendFault(call.header, call.contextId, fault::Unspecified, 0);
    return;
  }
  if ((call.header.flags & pdu_flag::Maybe) != 0)
    return;
  SendResponse(AnswerHeader(call.header, pdu_type_t::Response), {0, call.contextId, 0, result}, maxSend_, protection_,
               send_);
}

/// Answers the call of which this is a fragment, once, and drops what else belongs to it.
void CAssociation::Refuse(const SPduHeader& header, std::uint16_t contextId, std::uint32_t status) {
  const bool isAnswered = (header.flags & pdu_flag::First) == 0 && discarded_ == header.callId;
  partial_.reset();
  discarded_.reset();
  if ((header.flags & pdu_flag::Last) == 0)
    discarded_ = header.callId;
  if (!isAnswered)
    SendFault(header, contextId, status, pdu_flag::DidNotExecute);
}

void CAssociation::SendFault(const SPduHeader& header, std::uint16_t contextId, std::uint32_t status,
                             std::uint8_t flags) {
  // No answer is wanted, and a fault would be taken for that of the next call.
  if (header.type == pdu_type_t::Request && (header.flags & pdu_flag::Maybe) != 0)
    return;
  SPduHeader answer = AnswerHeader(header, pdu_type_t::Fault);
  answer.flags |= flags;
  send_(EncodeFault(answer, {contextId, 0, status}));
}

void CAssociation::SendBindNak(const SPduHeader& header, std::uint16_t reason) {
  send_(EncodeBindNak(AnswerHeader(header, pdu_type_t::BindNak), {reason, {{ProtocolVersion, 0}}}));
}

}  // namespace dcerpc
