#include "programs/ep_mapper_table.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr PortmapRecord OwnRows[] = {{100000, 2, PortmapProtocolTcp, 111}, {100000, 2, PortmapProtocolUdp, 111}};

bool HasKeyOf(const PortmapRecord& row, const PortmapRecord& record) {
  return row.program == record.program && row.version == record.version && row.protocol == record.protocol;
}

}  // namespace

void PortmapRecord::Decode(CXDRReader& reader) {
  program = reader.UInt();
  version = reader.UInt();
  protocol = reader.UInt();
  port = reader.UInt();
}

void PortmapRecord::Encode(CXDRWriter& writer) const {
  for (const std::uint32_t word : {program, version, protocol, port})
    writer.UInt(word);
}

CEpMapperTable& CEpMapperTable::Instance() {
  static CEpMapperTable table;
  return table;
}

void CEpMapperTable::Seed() {
  for (const PortmapRecord& row : OwnRows)
    Insert(row);
}

bool CEpMapperTable::Insert(const PortmapRecord& record) {
  const std::lock_guard lock(mutex_);
  const bool exists = std::ranges::any_of(rows_, [&record](const PortmapRecord& row) { return HasKeyOf(row, record); });
  if (exists)
    return false;
  if (rows_.size() >= maxRows_)
    throw std::length_error("list<T> too long");
  rows_.push_back(record);
  return true;
}

bool CEpMapperTable::Remove(const PortmapRecord& record) {
  const std::lock_guard lock(mutex_);
  return rows_.remove_if([&record](const PortmapRecord& row) {
    return row.program == record.program && row.version == record.version;
  }) != 0;
}

std::uint32_t CEpMapperTable::Lookup(const PortmapRecord& record) const {
  const std::lock_guard lock(mutex_);
  const auto row = std::ranges::find_if(rows_, [&record](const PortmapRecord& it) { return HasKeyOf(it, record); });
  return row == rows_.end() ? 0 : row->port;
}

std::list<PortmapRecord> CEpMapperTable::Dump() const {
  const std::lock_guard lock(mutex_);
  return rows_;
}
