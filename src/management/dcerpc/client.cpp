#include "management/dcerpc/client.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace dcerpc {
namespace {

/// One association has one context, of each kind.
constexpr std::uint16_t PresentationContextId = 0;
constexpr std::uint32_t SecurityContextId = 1;

[[noreturn]] void ThrowFault(std::uint32_t status) {
  const auto hex = [](std::uint32_t number) {
    std::string text;
    for (int shift = 28; shift >= 0; shift -= 4)
      text += "0123456789abcdef"[number >> shift & 0xF];
    return "0x" + text;
  };
  std::string text;
  switch (status) {
    case fault::AccessDenied:
      text =
          "The service denied access: the user or the password is wrong, or it demands a better protected connection.";
      break;
    case fault::BadStubData:
      text = "The service could not read the call.";
      break;
    case fault::SecurityPackage:
      text = "The service found that the call was changed on its way.";
      break;
    case fault::OperationRange:
      text = "The service has no such operation.";
      break;
    case fault::UnknownInterface:
      text = "The service does not offer the management interface.";
      break;
    case fault::ProtocolError:
      text = "The service took the call for one against the protocol.";
      break;
    case fault::ServerTooBusy:
      text = "The service has no room for the call now.";
      break;
    case fault::NoMemory:
      text = "The call is larger than what the service takes.";
      break;
    default:
      text = "The service refused the call.";
  }
  throw fault_exc_t(text + " Fault: [" + hex(status) + "].", status);
}

[[noreturn]] void ThrowNak(const SBindNak& nak) {
  if (nak.reason == SBindNak::AuthenticationRefused)
    throw exc::runtime_exc_t(
        "The service refused the authentication: the user, the password or the way to authenticate"
        " is wrong.");
  if (nak.reason == SBindNak::VersionNotSupported)
    throw exc::runtime_exc_t("The service speaks another version of the protocol.");
  throw exc::runtime_exc_t("The service refused the connection. Reason: [%1].", nak.reason);
}

[[noreturn]] void ThrowUnexpected(const SPdu& pdu) {
  throw exc::runtime_exc_t("The service answered with what does not belong here. Type of PDU: [%1].",
                           static_cast<unsigned>(pdu.header.type));
}

}  // namespace

CRpcClient::CRpcClient(std::unique_ptr<IClientStream> stream, const SSyntaxId& interface, SClientSecurity security)
    : stream_(std::move(stream)), security_(std::move(security)) {
  Bind(interface);
}

SProtection CRpcClient::Protection() const {
  if (!security_.context)
    return {};
  return {security_.context.get(), security_.type, security_.level, SecurityContextId, headerSigned_};
}

SToken CRpcClient::MakeToken(bytes_t value) const {
  return {{security_.type, security_.level, 0, SecurityContextId}, std::move(value)};
}

CRpcClient::SReceived CRpcClient::Receive() {
  SReceived received;
  received.bytes.resize(HeaderSize);
  stream_->Receive(received.bytes);
  const SPduHeader header = DecodeHeader(received.bytes);
  if (header.version != ProtocolVersion)
    throw exc::runtime_exc_t("The endpoint does not speak the protocol of the management service.");
  received.bytes.resize(header.fragmentLength);
  stream_->Receive(std::span(received.bytes).subspan(HeaderSize));
  received.pdu = ParsePdu(received.bytes);
  if (received.pdu.header.callId != callId_)
    throw exc::runtime_exc_t("The service answered a call that was not made.");
  return received;
}

void CRpcClient::CheckAck(const SPdu& answer) {
  if (answer.header.type == pdu_type_t::BindNak)
    ThrowNak(DecodeBindNak(answer));
  if (answer.header.type == pdu_type_t::Fault)
    ThrowFault(DecodeFault(answer).status);
  if (answer.header.type != pdu_type_t::BindAck && answer.header.type != pdu_type_t::AlterContextResponse)
    ThrowUnexpected(answer);
  const SBindAck ack = DecodeBindAck(answer);
  if (ack.results.size() != 1)
    throw exc::runtime_exc_t("The service answered with another number of interfaces than it was asked for.");
  if (ack.results[0].result != SContextResult::Acceptance || ack.results[0].transferSyntax != NdrSyntax)
    throw exc::runtime_exc_t("The service does not offer the management interface. Reason: [%1].",
                             ack.results[0].reason);
  if (answer.header.type == pdu_type_t::BindAck) {
    maxFragment_ = std::min<std::size_t>(maxFragment_, ack.maxReceive);
    headerSigned_ = security_.context && (answer.header.flags & pdu_flag::SupportHeaderSign) != 0;
    bind_.associationGroup = ack.associationGroup;
  }
}

void CRpcClient::Bind(const SSyntaxId& interface) {
  bind_.contexts = {{PresentationContextId, interface, {NdrSyntax}}};
  SPduHeader header;
  header.type = pdu_type_t::Bind;
  header.callId = callId_;
  std::optional<SToken> token;
  if (security_.context) {
    header.flags |= pdu_flag::SupportHeaderSign;
    token = MakeToken(security_.context->Step({}));
  }
  stream_->Send(EncodeBind(header, bind_, token));
  const SReceived answer = Receive();
  CheckAck(answer.pdu);
  if (security_.context)
    FinishHandshake(answer.pdu);
}

/// A last token of ours goes in an auth3, which has no answer, except where the mechanism is negotiated: there the
/// server has the last word.
void CRpcClient::FinishHandshake(const SPdu& ack) {
  ISecurityContext& context = *security_.context;
  bytes_t token(ack.authValue.begin(), ack.authValue.end());
  while (!context.IsEstablished()) {
    if (token.empty())
      throw exc::runtime_exc_t("The service ended the authentication before it was complete.");
    bytes_t next = context.Step(token);
    token.clear();
    if (next.empty())
      continue;
    SPduHeader header;
    header.callId = callId_;
    if (security_.type != auth_type_t::Negotiate) {
      header.type = pdu_type_t::Auth3;
      stream_->Send(EncodeAuth3(header, MakeToken(std::move(next))));
      continue;
    }
    header.type = pdu_type_t::AlterContext;
    header.flags |= pdu_flag::SupportHeaderSign;
    stream_->Send(EncodeBind(header, bind_, MakeToken(std::move(next))));
    const SReceived answer = Receive();
    CheckAck(answer.pdu);
    token.assign(answer.pdu.authValue.begin(), answer.pdu.authValue.end());
  }
}

CRpcClient::SReceived CRpcClient::ReceiveFragment() {
  SReceived received = Receive();
  const SPdu& pdu = received.pdu;
  // A server that cannot protect its answer says so in a fault without a verifier.
  if (pdu.header.type == pdu_type_t::Fault)
    ThrowFault(DecodeFault(pdu).status);
  if (pdu.header.type != pdu_type_t::Response)
    ThrowUnexpected(pdu);
  const SProtection protection = Protection();
  if (!protection.IsOn())
    return received;
  switch (Unprotect(received.bytes, pdu, StubOffset(pdu.header), protection)) {
    case protection_result_t::Good:
      return received;
    case protection_result_t::NoVerifier:
      throw exc::runtime_exc_t("The service did not protect its answer.");
    case protection_result_t::WrongSignature:
      break;
  }
  throw exc::runtime_exc_t("The answer of the service was changed on its way.");
}

SStub CRpcClient::Call(std::uint16_t opnum, bytes_view_t stub) {
  SPduHeader header;
  header.type = pdu_type_t::Request;
  header.callId = ++callId_;
  SRequest request;
  request.contextId = PresentationContextId;
  request.opnum = opnum;
  request.stub = stub;
  SendRequest(header, request, maxFragment_, Protection(), [this](bytes_view_t pdu) { stream_->Send(pdu); });
  SStub answer;
  for (bool isFirst = true;; isFirst = false) {
    const SReceived received = ReceiveFragment();
    const SPduHeader& got = received.pdu.header;
    if (isFirst != ((got.flags & pdu_flag::First) != 0))
      throw exc::runtime_exc_t("The parts of the service's answer are out of order.");
    const bytes_view_t part = DecodeResponse(received.pdu).stub;
    if (part.size() > MaxResponse - answer.bytes.size())
      throw exc::runtime_exc_t("The answer of the service is too long. Limit: [%1] bytes.", MaxResponse);
    answer.bytes.insert(answer.bytes.end(), part.begin(), part.end());
    answer.order = got.order;
    if ((got.flags & pdu_flag::Last) != 0)
      return answer;
  }
}

}  // namespace dcerpc
