#include "management/dcerpc/pdu.h"

#include <algorithm>
#include <limits>

namespace dcerpc {
namespace {

constexpr std::size_t AuthLengthOffset = 10;
constexpr std::size_t FragmentLengthOffset = 8;
constexpr std::size_t UuidSize = 16;

/// Reads what is there and throws where it ends. Positions count from the beginning of the PDU, as alignment does.
class reader_t {
 public:
  reader_t(bytes_view_t bytes, std::size_t position, byte_order_t order)
      : bytes_(bytes), position_(position), order_(order) {}

  std::uint8_t U8() { return Take(1)[0]; }
  std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
  std::uint32_t U32() { return Number(4); }

  SSyntaxId Syntax() {
    SSyntaxId syntax;
    syntax.uuid = Uuid();
    syntax.version = U32();
    return syntax;
  }

  platform::GUID Uuid() {
    const bytes_view_t wire = Take(UuidSize);
    platform::GUID uuid;
    std::copy(wire.begin(), wire.end(), uuid.bytes.begin());
    if (order_ == byte_order_t::Little)
      SwapFields(uuid);
    return uuid;
  }

  bytes_view_t Take(std::size_t count) {
    if (bytes_.size() - position_ < count)
      throw exc::runtime_exc_t("A PDU ends early: %1 of %2 bytes are left.", bytes_.size() - position_, count);
    const bytes_view_t taken = bytes_.subspan(position_, count);
    position_ += count;
    return taken;
  }

  void Align(std::size_t boundary) { Take((boundary - position_ % boundary) % boundary); }
  bytes_view_t Rest() const { return bytes_.subspan(position_); }

  /// The fields of a UUID that are integers: their order on the wire is the sender's, in the text form it is big.
  static void SwapFields(platform::GUID& uuid) {
    std::reverse(uuid.bytes.begin(), uuid.bytes.begin() + 4);
    std::reverse(uuid.bytes.begin() + 4, uuid.bytes.begin() + 6);
    std::reverse(uuid.bytes.begin() + 6, uuid.bytes.begin() + 8);
  }

 private:
  std::uint32_t Number(std::size_t size) {
    const bytes_view_t wire = Take(size);
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < size; ++i)
      number = number << 8 | wire[order_ == byte_order_t::Big ? i : size - 1 - i];
    return number;
  }

  bytes_view_t bytes_;
  std::size_t position_;
  byte_order_t order_;
};

/// Appends little-endian fields.
class writer_t {
 public:
  explicit writer_t(const SPduHeader& header) {
    constexpr std::uint8_t LittleEndianAscii = 0x10;
    U8(header.version);
    U8(header.minorVersion);
    U8(static_cast<std::uint8_t>(header.type));
    U8(header.flags);
    U32(LittleEndianAscii);
    U32(0);  // Both lengths: SetLengths.
    U32(header.callId);
  }

  void U8(std::uint8_t value) { bytes_.push_back(value); }
  void U16(std::uint16_t value) {
    U8(static_cast<std::uint8_t>(value));
    U8(static_cast<std::uint8_t>(value >> 8));
  }
  void U32(std::uint32_t value) {
    U16(static_cast<std::uint16_t>(value));
    U16(static_cast<std::uint16_t>(value >> 16));
  }
  void Uuid(platform::GUID uuid) {
    reader_t::SwapFields(uuid);
    bytes_.insert(bytes_.end(), uuid.bytes.begin(), uuid.bytes.end());
  }
  void Syntax(const SSyntaxId& syntax) {
    Uuid(syntax.uuid);
    U32(syntax.version);
  }
  void Text(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
  void Align(std::size_t boundary) { bytes_.resize((bytes_.size() + boundary - 1) / boundary * boundary); }

  bytes_t Finish() { return Finish({}); }
  bytes_t Finish(const std::optional<SToken>& token) {
    std::size_t authLength = 0;
    if (token && !token->value.empty()) {
      constexpr std::size_t TrailerBoundary = 4;
      AppendTrailer(bytes_, token->trailer, (TrailerBoundary - bytes_.size() % TrailerBoundary) % TrailerBoundary);
      bytes_.insert(bytes_.end(), token->value.begin(), token->value.end());
      authLength = token->value.size();
    }
    SetLengths(bytes_, authLength);
    return std::move(bytes_);
  }
  bytes_t FinishHead() { return std::move(bytes_); }

 private:
  bytes_t bytes_;
};

template <typename Number>
Number Checked(std::size_t value, const char* what) {
  if (value > std::numeric_limits<Number>::max())
    throw exc::runtime_exc_t("One PDU cannot hold %1 %2.", value, what);
  return static_cast<Number>(value);
}

reader_t BodyReader(const SPdu& pdu) {
  // Alignment counts from the header, so the reader sees it; it ends where the body does.
  return {pdu.bytes.first(HeaderSize + pdu.body.size()), HeaderSize, pdu.header.order};
}

void WriteU16(bytes_t& bytes, std::size_t offset, std::uint16_t value) {
  bytes[offset] = static_cast<std::uint8_t>(value);
  bytes[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

}  // namespace

SPduHeader DecodeHeader(bytes_view_t bytes) {
  constexpr std::size_t RepresentationOffset = 4;
  constexpr std::uint8_t LastOrder = 1;
  if (bytes.size() < HeaderSize)
    throw exc::runtime_exc_t("A PDU of %1 bytes is shorter than its header.", bytes.size());
  SPduHeader header;
  header.version = bytes[0];
  header.minorVersion = bytes[1];
  header.type = static_cast<pdu_type_t>(bytes[2]);
  header.flags = bytes[3];
  const std::uint8_t order = bytes[RepresentationOffset] >> 4;
  if (order > LastOrder)
    throw exc::runtime_exc_t("The order of integers %1 of a PDU is not known.", order);
  header.order = static_cast<byte_order_t>(order);
  reader_t reader(bytes, FragmentLengthOffset, header.order);
  header.fragmentLength = reader.U16();
  header.authLength = reader.U16();
  header.callId = reader.U32();
  if (header.fragmentLength < HeaderSize)
    throw exc::runtime_exc_t("A PDU announces %1 bytes, less than its header.", header.fragmentLength);
  return header;
}

SPdu ParsePdu(bytes_view_t bytes) {
  SPdu pdu;
  pdu.header = DecodeHeader(bytes);
  pdu.bytes = bytes;
  if (pdu.header.fragmentLength != bytes.size())
    throw exc::runtime_exc_t("A PDU of %1 bytes announces %2.", bytes.size(), pdu.header.fragmentLength);
  pdu.body = bytes.subspan(HeaderSize);
  if (pdu.header.authLength == 0)
    return pdu;
  const std::size_t tail = TrailerSize + pdu.header.authLength;
  if (pdu.body.size() < tail)
    throw exc::runtime_exc_t("A PDU of %1 bytes has no room for a verifier of %2.", bytes.size(),
                             pdu.header.authLength);
  const std::size_t trailerOffset = bytes.size() - tail;
  reader_t reader(bytes, trailerOffset, pdu.header.order);
  SAuthTrailer trailer;
  trailer.type = static_cast<auth_type_t>(reader.U8());
  trailer.level = static_cast<auth_level_t>(reader.U8());
  trailer.padLength = reader.U8();
  reader.U8();
  trailer.contextId = reader.U32();
  pdu.authValue = reader.Rest();
  const std::size_t paddedBody = trailerOffset - HeaderSize;
  if (trailer.padLength > paddedBody)
    throw exc::runtime_exc_t("A body of %1 bytes cannot end with %2 bytes of padding.", paddedBody, trailer.padLength);
  pdu.body = pdu.body.first(paddedBody - trailer.padLength);
  pdu.trailer = trailer;
  return pdu;
}

SBind DecodeBind(const SPdu& pdu) {
  constexpr std::size_t ReservedAfterCount = 3;
  reader_t reader = BodyReader(pdu);
  SBind bind;
  bind.maxTransmit = reader.U16();
  bind.maxReceive = reader.U16();
  bind.associationGroup = reader.U32();
  const std::size_t count = reader.U8();
  reader.Take(ReservedAfterCount);
  for (std::size_t i = 0; i < count; ++i) {
    SPresentationContext context;
    context.id = reader.U16();
    const std::size_t syntaxes = reader.U8();
    reader.U8();
    context.abstractSyntax = reader.Syntax();
    for (std::size_t j = 0; j < syntaxes; ++j)
      context.transferSyntaxes.push_back(reader.Syntax());
    bind.contexts.push_back(std::move(context));
  }
  return bind;
}

SBindAck DecodeBindAck(const SPdu& pdu) {
  constexpr std::size_t ReservedAfterCount = 3;
  reader_t reader = BodyReader(pdu);
  SBindAck ack;
  ack.maxTransmit = reader.U16();
  ack.maxReceive = reader.U16();
  ack.associationGroup = reader.U32();
  const bytes_view_t address = reader.Take(reader.U16());
  ack.secondaryAddress.assign(address.begin(), std::find(address.begin(), address.end(), 0));
  reader.Align(4);
  const std::size_t count = reader.U8();
  reader.Take(ReservedAfterCount);
  for (std::size_t i = 0; i < count; ++i) {
    SContextResult result;
    result.result = reader.U16();
    result.reason = reader.U16();
    result.transferSyntax = reader.Syntax();
    ack.results.push_back(result);
  }
  return ack;
}

SBindNak DecodeBindNak(const SPdu& pdu) {
  reader_t reader = BodyReader(pdu);
  SBindNak nak;
  nak.reason = reader.U16();
  // Some servers tell the reason alone.
  if (reader.Rest().empty())
    return nak;
  const std::size_t count = reader.U8();
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t major = reader.U8();
    nak.versions.emplace_back(major, reader.U8());
  }
  return nak;
}

SRequest DecodeRequest(const SPdu& pdu) {
  reader_t reader = BodyReader(pdu);
  SRequest request;
  request.allocHint = reader.U32();
  request.contextId = reader.U16();
  request.opnum = reader.U16();
  if ((pdu.header.flags & pdu_flag::ObjectUuid) != 0)
    request.object = reader.Uuid();
  request.stub = reader.Rest();
  return request;
}

SResponse DecodeResponse(const SPdu& pdu) {
  reader_t reader = BodyReader(pdu);
  SResponse response;
  response.allocHint = reader.U32();
  response.contextId = reader.U16();
  response.cancelCount = reader.U8();
  reader.U8();
  response.stub = reader.Rest();
  return response;
}

SFault DecodeFault(const SPdu& pdu) {
  reader_t reader = BodyReader(pdu);
  SFault fault;
  reader.U32();
  fault.contextId = reader.U16();
  fault.cancelCount = reader.U8();
  reader.U8();
  fault.status = reader.U32();
  return fault;
}

bytes_t EncodeBind(SPduHeader header, const SBind& bind, const std::optional<SToken>& token) {
  writer_t writer(header);
  writer.U16(bind.maxTransmit);
  writer.U16(bind.maxReceive);
  writer.U32(bind.associationGroup);
  writer.U8(Checked<std::uint8_t>(bind.contexts.size(), "presentation contexts"));
  writer.Align(4);
  for (const SPresentationContext& context : bind.contexts) {
    writer.U16(context.id);
    writer.U8(Checked<std::uint8_t>(context.transferSyntaxes.size(), "transfer syntaxes"));
    writer.U8(0);
    writer.Syntax(context.abstractSyntax);
    for (const SSyntaxId& syntax : context.transferSyntaxes)
      writer.Syntax(syntax);
  }
  return writer.Finish(token);
}

bytes_t EncodeBindAck(SPduHeader header, const SBindAck& ack, const std::optional<SToken>& token) {
  writer_t writer(header);
  writer.U16(ack.maxTransmit);
  writer.U16(ack.maxReceive);
  writer.U32(ack.associationGroup);
  if (ack.secondaryAddress.empty()) {
    writer.U16(0);
  } else {
    writer.U16(Checked<std::uint16_t>(ack.secondaryAddress.size() + 1, "bytes of an address"));
    writer.Text(ack.secondaryAddress);
    writer.U8(0);
  }
  writer.Align(4);
  writer.U8(Checked<std::uint8_t>(ack.results.size(), "results"));
  writer.Align(4);
  for (const SContextResult& result : ack.results) {
    writer.U16(result.result);
    writer.U16(result.reason);
    writer.Syntax(result.transferSyntax);
  }
  return writer.Finish(token);
}

bytes_t EncodeBindNak(SPduHeader header, const SBindNak& nak) {
  writer_t writer(header);
  writer.U16(nak.reason);
  writer.U8(Checked<std::uint8_t>(nak.versions.size(), "versions"));
  for (const auto& [major, minor] : nak.versions) {
    writer.U8(major);
    writer.U8(minor);
  }
  writer.Align(4);
  return writer.Finish();
}

bytes_t EncodeAuth3(SPduHeader header, const SToken& token) {
  writer_t writer(header);
  writer.U32(0);
  return writer.Finish(token);
}

bytes_t EncodeFault(SPduHeader header, const SFault& fault) {
  constexpr std::uint32_t FaultSize = 32;
  writer_t writer(header);
  writer.U32(FaultSize);
  writer.U16(fault.contextId);
  writer.U8(fault.cancelCount);
  writer.U8(0);
  writer.U32(fault.status);
  writer.U32(0);
  return writer.Finish();
}

bytes_t EncodeEmpty(SPduHeader header) {
  return writer_t(header).Finish();
}

bytes_t EncodeRequestHead(SPduHeader header, const SRequest& request) {
  if (request.object)
    header.flags |= pdu_flag::ObjectUuid;
  writer_t writer(header);
  writer.U32(request.allocHint);
  writer.U16(request.contextId);
  writer.U16(request.opnum);
  if (request.object)
    writer.Uuid(*request.object);
  return writer.FinishHead();
}

bytes_t EncodeResponseHead(SPduHeader header, const SResponse& response) {
  writer_t writer(header);
  writer.U32(response.allocHint);
  writer.U16(response.contextId);
  writer.U8(response.cancelCount);
  writer.U8(0);
  return writer.FinishHead();
}

void SetLengths(bytes_t& pdu, std::size_t authLength) {
  WriteU16(pdu, FragmentLengthOffset, Checked<std::uint16_t>(pdu.size(), "bytes"));
  WriteU16(pdu, AuthLengthOffset, Checked<std::uint16_t>(authLength, "bytes of a verifier"));
}

void AppendTrailer(bytes_t& pdu, SAuthTrailer trailer, std::size_t padding) {
  trailer.padLength = Checked<std::uint8_t>(padding, "bytes of padding");
  pdu.resize(pdu.size() + padding);
  pdu.push_back(static_cast<std::uint8_t>(trailer.type));
  pdu.push_back(static_cast<std::uint8_t>(trailer.level));
  pdu.push_back(trailer.padLength);
  pdu.push_back(0);
  for (int shift = 0; shift < 32; shift += 8)
    pdu.push_back(static_cast<std::uint8_t>(trailer.contextId >> shift));
}

}  // namespace dcerpc
