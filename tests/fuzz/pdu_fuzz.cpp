// The decoders of single PDUs in both orders of integers, and what is decoded of the tokens in them.
#include "management/dcerpc/pdu.h"

#include "fuzz/fuzz_input.h"
#include "management/dcerpc/spnego_token.h"

namespace {

using dcerpc::bytes_t;
using dcerpc::SPdu;

/// What was decoded is the same once it was encoded and decoded again, wherever the encoder can hold it.
template <typename Decode, typename Encode>
void Check(const SPdu& pdu, const Decode& decode, const Encode& encode) {
  fuzz::Try([&] {
    const auto decoded = decode(pdu);
    bytes_t bytes;
    if (!fuzz::Try([&] { bytes = encode(decoded); }))
      return;
    const SPdu again = dcerpc::ParsePdu(bytes);
    fuzz::Require(decode(again) == decoded, "a record survives encoding and decoding");
  });
}

void DecodeAll(const bytes_t& bytes) {
  SPdu pdu;
  if (!fuzz::Try([&] { pdu = dcerpc::ParsePdu(bytes); }))
    return;
  fuzz::Require(pdu.trailer.has_value() == (pdu.header.authLength != 0), "a trailer is there with a verifier alone");
  fuzz::Require(pdu.body.size() + pdu.authValue.size() <= bytes.size(), "body and verifier do not overlap");
  Check(pdu, dcerpc::DecodeBind, [](const dcerpc::SBind& bind) { return EncodeBind({}, bind, std::nullopt); });
  Check(pdu, dcerpc::DecodeBindAck, [](const dcerpc::SBindAck& ack) { return EncodeBindAck({}, ack, std::nullopt); });
  Check(pdu, dcerpc::DecodeBindNak, [](const dcerpc::SBindNak& nak) { return EncodeBindNak({}, nak); });
  Check(pdu, dcerpc::DecodeFault, [](const dcerpc::SFault& fault) { return EncodeFault({}, fault); });
  fuzz::Try([&] { DecodeRequest(pdu); });
  fuzz::Try([&] { DecodeResponse(pdu); });
}

/// The order of integers is in the bytes; the other one is tried with them, too, with lengths that fit.
void DecodeInBothOrders(bytes_t bytes) {
  constexpr std::size_t OrderOffset = 4;
  constexpr std::size_t LengthsOffset = 8;
  DecodeAll(bytes);
  if (bytes.size() < dcerpc::HeaderSize)
    return;
  bytes[OrderOffset] ^= 0x10;
  DecodeAll(bytes);
  std::swap(bytes[LengthsOffset], bytes[LengthsOffset + 1]);
  std::swap(bytes[LengthsOffset + 2], bytes[LengthsOffset + 3]);
  DecodeAll(bytes);
}

void DecodeToken(const bytes_t& token) {
  dcerpc::UnframedApReq(token);
  const std::optional<dcerpc::SNegTokenInit> init = dcerpc::SNegTokenInit::Decode(token);
  if (!init || init->mechToken.empty())
    return;
  const bytes_t other{'o', 't', 'h', 'e', 'r'};
  const std::optional<dcerpc::SNegTokenInit> replaced =
      dcerpc::SNegTokenInit::Decode(dcerpc::ReplaceMechToken(token, other));
  fuzz::Require(replaced.has_value(), "a NegTokenInit stays one when its token is replaced");
  fuzz::Require(replaced->mechToken == other && replaced->mechanisms == init->mechanisms,
                "nothing but the token is replaced");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::CInput input(data, size);
  const bool isToken = input.Byte() != 0;
  const dcerpc::bytes_view_t rest = input.Rest();
  const bytes_t bytes(rest.begin(), rest.end());
  if (isToken) {
    DecodeToken(bytes);
  } else {
    DecodeInBothOrders(bytes);
  }
  return 0;
}
