#include "management/dcerpc/spnego_token.h"

#include <algorithm>
#include <array>
#include <limits>

namespace dcerpc {
namespace {

// Tags of DER (X.690) that occur here.
constexpr std::uint8_t OctetString = 0x04;
constexpr std::uint8_t ObjectIdentifier = 0x06;
constexpr std::uint8_t Sequence = 0x30;
constexpr std::uint8_t Application0 = 0x60;
constexpr std::uint8_t Context0 = 0xa0;
constexpr std::uint8_t MechToken = 0xa2;
constexpr std::uint8_t LongLength = 0x80;

constexpr std::array<std::uint8_t, 6> SpnegoOid{0x2b, 0x06, 0x01, 0x05, 0x05, 0x02};
constexpr std::array<std::uint8_t, 9> KerberosOid{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02};
constexpr std::array<std::uint8_t, 2> ApReqMark{0x01, 0x00};

bool IsEqual(bytes_view_t left, bytes_view_t right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

/// One element and what follows it; views into the token.
struct SElement {
  std::uint8_t tag = 0;
  bytes_view_t content;
  bytes_view_t rest;
};

std::optional<SElement> ReadElement(bytes_view_t bytes) {
  if (bytes.size() < 2)
    return std::nullopt;
  const std::uint8_t tag = bytes[0];
  std::size_t length = bytes[1];
  bytes = bytes.subspan(2);
  if (length >= LongLength) {
    const std::size_t count = length - LongLength;
    if (count == 0 || count > sizeof(std::uint32_t) || count > bytes.size())
      return std::nullopt;
    length = 0;
    for (std::size_t i = 0; i < count; ++i)
      length = length << 8 | bytes[i];
    bytes = bytes.subspan(count);
  }
  if (length > bytes.size())
    return std::nullopt;
  return SElement{tag, bytes.first(length), bytes.subspan(length)};
}

/// The content of the element at the start, when it has this tag and nothing follows it.
std::optional<bytes_view_t> ReadOnly(bytes_view_t bytes, std::uint8_t tag) {
  const std::optional<SElement> element = ReadElement(bytes);
  if (!element || element->tag != tag || !element->rest.empty())
    return std::nullopt;
  return element->content;
}

/// What follows the object identifier in the framing of RFC 2743, when it is this one.
std::optional<bytes_view_t> ReadFramed(bytes_view_t token, bytes_view_t mechanism) {
  const std::optional<bytes_view_t> framed = ReadOnly(token, Application0);
  if (!framed)
    return std::nullopt;
  const std::optional<SElement> identifier = ReadElement(*framed);
  if (!identifier || identifier->tag != ObjectIdentifier || !IsEqual(identifier->content, mechanism))
    return std::nullopt;
  return identifier->rest;
}

/// The elements of the sequence in a NegTokenInit.
std::optional<std::vector<SElement>> ReadFields(bytes_view_t token) {
  const std::optional<bytes_view_t> framed = ReadFramed(token, SpnegoOid);
  const std::optional<bytes_view_t> choice = framed ? ReadOnly(*framed, Context0) : std::nullopt;
  std::optional<bytes_view_t> left = choice ? ReadOnly(*choice, Sequence) : std::nullopt;
  if (!left)
    return std::nullopt;
  std::vector<SElement> fields;
  while (!left->empty()) {
    const std::optional<SElement> field = ReadElement(*left);
    if (!field)
      return std::nullopt;
    fields.push_back(*field);
    left = field->rest;
  }
  return fields;
}

std::optional<std::vector<bytes_t>> ReadMechanisms(bytes_view_t field) {
  std::optional<bytes_view_t> left = ReadOnly(field, Sequence);
  if (!left)
    return std::nullopt;
  std::vector<bytes_t> mechanisms;
  while (!left->empty()) {
    const std::optional<SElement> identifier = ReadElement(*left);
    if (!identifier || identifier->tag != ObjectIdentifier)
      return std::nullopt;
    mechanisms.emplace_back(identifier->content.begin(), identifier->content.end());
    left = identifier->rest;
  }
  return mechanisms;
}

bytes_t MakeElement(std::uint8_t tag, bytes_view_t content) {
  bytes_t element{tag};
  if (content.size() < LongLength) {
    element.push_back(static_cast<std::uint8_t>(content.size()));
  } else {
    std::size_t count = 1;
    while (count < sizeof content.size() && content.size() >> (8 * count) != 0)
      ++count;
    element.push_back(static_cast<std::uint8_t>(LongLength + count));
    while (count-- > 0)
      element.push_back(static_cast<std::uint8_t>(content.size() >> (8 * count)));
  }
  element.insert(element.end(), content.begin(), content.end());
  return element;
}

void Append(bytes_t& bytes, bytes_view_t more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

}  // namespace

std::optional<SNegTokenInit> SNegTokenInit::Decode(bytes_view_t token) {
  const std::optional<std::vector<SElement>> fields = ReadFields(token);
  if (!fields || fields->empty() || fields->front().tag != Context0)
    return std::nullopt;
  std::optional<std::vector<bytes_t>> mechanisms = ReadMechanisms(fields->front().content);
  if (!mechanisms)
    return std::nullopt;
  SNegTokenInit init;
  init.mechanisms = std::move(*mechanisms);
  for (const SElement& field : *fields) {
    if (field.tag != MechToken)
      continue;
    const std::optional<bytes_view_t> text = ReadOnly(field.content, OctetString);
    if (!text)
      return std::nullopt;
    init.mechToken.assign(text->begin(), text->end());
  }
  return init;
}

bytes_t ReplaceMechToken(bytes_view_t token, bytes_view_t mechToken) {
  const std::optional<std::vector<SElement>> fields = ReadFields(token);
  bytes_t sequence;
  bool replaced = false;
  for (const SElement& field : fields.value_or(std::vector<SElement>())) {
    const bool isToken = field.tag == MechToken;
    Append(sequence, MakeElement(field.tag, isToken ? MakeElement(OctetString, mechToken)
                                                    : bytes_t(field.content.begin(), field.content.end())));
    replaced = replaced || isToken;
  }
  if (!replaced)
    return {token.begin(), token.end()};
  bytes_t framed = MakeElement(ObjectIdentifier, SpnegoOid);
  Append(framed, MakeElement(Context0, MakeElement(Sequence, sequence)));
  return MakeElement(Application0, framed);
}

bytes_view_t UnframedApReq(bytes_view_t token) {
  const std::optional<bytes_view_t> inner = ReadFramed(token, KerberosOid);
  if (!inner || inner->size() <= ApReqMark.size() || !IsEqual(inner->first(ApReqMark.size()), ApReqMark))
    return token;
  return inner->subspan(ApReqMark.size());
}

}  // namespace dcerpc
