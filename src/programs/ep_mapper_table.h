// The table of the own portmapper.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>

#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"

/// Protocol numbers of a portmapper row.
inline constexpr std::uint32_t PortmapProtocolTcp = 6;
inline constexpr std::uint32_t PortmapProtocolUdp = 17;

/// A row, and the argument of SET, UNSET and GETPORT.
struct PortmapRecord {
  std::uint32_t program = 0;
  std::uint32_t version = 0;
  std::uint32_t protocol = 0;
  std::uint32_t port = 0;

  bool operator==(const PortmapRecord&) const = default;
  void Decode(CXDRReader& reader);
  void Encode(CXDRWriter& writer) const;
};

/// Rows in the order of their insertion, one for each program, version and protocol. Any thread; the lock is held for
/// the list operation alone.
class CEpMapperTable {
 public:
  static constexpr std::size_t MaxRows = 0x0AAAAAA9;

  /// The process's table.
  static CEpMapperTable& Instance();

  explicit CEpMapperTable(std::size_t maxRows = MaxRows) : maxRows_(maxRows) {}
  CEpMapperTable(const CEpMapperTable&) = delete;
  CEpMapperTable& operator=(const CEpMapperTable&) = delete;

  /// Inserts the portmapper's own two rows; every server does so at its start.
  void Seed();
  /// False, and nothing changes, when the key exists already. std::length_error when the table is full.
  bool Insert(const PortmapRecord& record);
  /// Every row of the program and version, whatever its protocol and port. False when there was none.
  bool Remove(const PortmapRecord& record);
  /// The port of the program, version and protocol, or 0.
  std::uint32_t Lookup(const PortmapRecord& record) const;
  std::list<PortmapRecord> Dump() const;

 private:
  const std::size_t maxRows_;
  mutable std::mutex mutex_;
  std::list<PortmapRecord> rows_;  // Guarded by mutex_.
};
