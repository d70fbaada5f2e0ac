#include "management/dcerpc/endpoint_mapper.h"

#include <algorithm>

#include "management/dcerpc/ndr.h"

namespace dcerpc {
namespace {

constexpr std::uint16_t InsertOpnum = 0;
constexpr std::uint16_t DeleteOpnum = 1;

/// What the left sides of floors begin with (C706, appendix I).
constexpr std::uint8_t UuidFloor = 0x0d;
constexpr std::uint8_t ConnectionOrientedFloor = 0x0b;
constexpr std::uint8_t TcpFloor = 0x07;
constexpr std::uint8_t IpFloor = 0x09;

constexpr std::uint32_t TowerReferent = 0x00020000;

/// Of little-endian integers; a tower has these whatever the order of the PDU is.
void Append16(bytes_t& bytes, std::size_t number) {
  bytes.push_back(static_cast<std::uint8_t>(number));
  bytes.push_back(static_cast<std::uint8_t>(number >> 8));
}

bytes_t WireUuid(const platform::GUID& uuid) {
  bytes_t bytes(uuid.bytes.begin(), uuid.bytes.end());
  std::reverse(bytes.begin(), bytes.begin() + 4);
  std::swap(bytes[4], bytes[5]);
  std::swap(bytes[6], bytes[7]);
  return bytes;
}

void AppendFloor(bytes_t& tower, const bytes_t& left, const bytes_t& right) {
  Append16(tower, left.size());
  tower.insert(tower.end(), left.begin(), left.end());
  Append16(tower, right.size());
  tower.insert(tower.end(), right.begin(), right.end());
}

void AppendSyntax(bytes_t& tower, const SSyntaxId& syntax) {
  constexpr int MinorShift = 16;
  bytes_t left{UuidFloor};
  const bytes_t uuid = WireUuid(syntax.uuid);
  left.insert(left.end(), uuid.begin(), uuid.end());
  Append16(left, syntax.version & 0xffff);
  bytes_t right;
  Append16(right, syntax.version >> MinorShift);
  AppendFloor(tower, left, right);
}

void WriteBytes(CNdrWriter& writer, bytes_view_t bytes) {
  for (const std::uint8_t byte : bytes)
    writer.Byte(byte);
}

void WriteEntry(CNdrWriter& writer, const SEndpointEntry& entry) {
  constexpr std::uint32_t One = 1;
  writer.UInt(One);
  writer.UInt(One);  // As the size of the array, which is conformant.
  WriteBytes(writer, WireUuid({}));
  writer.Pointer(true, TowerReferent);
  const std::string annotation = entry.annotation.substr(0, SEndpointEntry::MaxAnnotation) + '\0';
  writer.UInt(0);
  writer.Length(annotation.size());
  for (const char character : annotation)
    writer.Byte(static_cast<std::uint8_t>(character));
  const bytes_t tower = EncodeTower(entry);
  writer.Align(sizeof(std::uint32_t));
  writer.Length(tower.size());
  writer.Length(tower.size());  // As the first field, behind the size of the array.
  WriteBytes(writer, tower);
}

}  // namespace

const SSyntaxId& EndpointMapperInterfaceId() {
  static constexpr SSyntaxId Id{
      {{0xe1, 0xaf, 0x83, 0x08, 0x5d, 0x1f, 0x11, 0xc9, 0x91, 0xa4, 0x08, 0x00, 0x2b, 0x14, 0xa0, 0xfa}}, 3};
  return Id;
}

bytes_t EncodeTower(const SEndpointEntry& entry) {
  constexpr std::size_t Floors = 5;
  bytes_t tower;
  Append16(tower, Floors);
  AppendSyntax(tower, entry.interface);
  AppendSyntax(tower, NdrSyntax);
  AppendFloor(tower, {ConnectionOrientedFloor}, {0, 0});
  // These two are in the order of the network.
  AppendFloor(tower, {TcpFloor},
              {static_cast<std::uint8_t>(entry.port >> 8), static_cast<std::uint8_t>(entry.port & 0xff)});
  AppendFloor(tower, {IpFloor}, {entry.address.begin(), entry.address.end()});
  return tower;
}

bytes_t EncodeEndpointEntry(const SEndpointEntry& entry) {
  CNdrWriter writer;
  WriteEntry(writer, entry);
  return writer.Take();
}

std::unique_ptr<CEndpointMapper> CEndpointMapper::Find(const SEndpointMapperPlace& place) {
  try {
    return std::unique_ptr<CEndpointMapper>(new CEndpointMapper(ConnectTcp("127.0.0.1", place.port, place.limit)));
  } catch (const exc::exc_base_t&) {
    return {};
  }
}

CEndpointMapper::CEndpointMapper(std::unique_ptr<IClientStream> stream)
    : client_(std::move(stream), EndpointMapperInterfaceId()) {}

void CEndpointMapper::Insert(const SEndpointEntry& entry) {
  constexpr std::uint32_t Replace = 1;
  CNdrWriter writer;
  WriteEntry(writer, entry);
  writer.UInt(Replace);
  Call(InsertOpnum, writer.Stub());
}

void CEndpointMapper::Delete(const SEndpointEntry& entry) {
  Call(DeleteOpnum, EncodeEndpointEntry(entry));
}

void CEndpointMapper::Call(std::uint16_t opnum, bytes_view_t stub) {
  const SStub answer = client_.Call(opnum, stub);
  const std::uint32_t status = CNdrReader(answer.bytes, answer.order).UInt();
  if (status != 0)
    throw exc::win_sys_exc_t("The endpoint mapper refused the entry.", status);
}

}  // namespace dcerpc
