// The field types of the NFS records on the wire, so that a record is written and read as one list of its fields.
// Internal to this folder.
#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/exc.h"
#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"

namespace nfs_wire {

inline void Put(CXDRWriter& writer, bool value) {
  writer.Bool(value ? 1 : 0);
}
inline void Put(CXDRWriter& writer, std::uint32_t value) {
  writer.UInt(value);
}
inline void Put(CXDRWriter& writer, std::uint64_t value) {
  writer.UInt(static_cast<std::uint32_t>(value >> 32));
  writer.UInt(static_cast<std::uint32_t>(value));
}
inline void Put(CXDRWriter& writer, const std::string& value) {
  writer.VarLenData(value.data(), value.size());
}
inline void Put(CXDRWriter& writer, const std::array<std::uint8_t, 8>& value) {
  writer.Fixed8(value);
}
template <typename Record>
requires requires(const Record& record, CXDRWriter& writer) {
  record.Encode(writer);
}
void Put(CXDRWriter& writer, const Record& record) {
  record.Encode(writer);
}
template <typename Value>
void Put(CXDRWriter& writer, const std::optional<Value>& value) {
  writer.Bool(value.has_value() ? 1 : 0);
  if (value.has_value())
    Put(writer, *value);
}

inline void Get(CXDRReader& reader, bool& value) {
  value = reader.Bool();
}
inline void Get(CXDRReader& reader, std::uint32_t& value) {
  value = reader.UInt();
}
inline void Get(CXDRReader& reader, std::uint64_t& value) {
  value = reader.UInt64();
}
inline void Get(CXDRReader& reader, std::string& value) {
  value = reader.String();
}
inline void Get(CXDRReader& reader, std::array<std::uint8_t, 8>& value) {
  value = reader.Fixed8();
}
template <typename Record>
requires requires(Record& record, CXDRReader& reader) {
  record.Decode(reader);
}
void Get(CXDRReader& reader, Record& record) {
  record.Decode(reader);
}
template <typename Value>
void Get(CXDRReader& reader, std::optional<Value>& value) {
  value.reset();
  if (reader.Bool())
    Get(reader, value.emplace());
}

template <typename... Fields>
void PutAll(CXDRWriter& writer, const Fields&... fields) {
  (Put(writer, fields), ...);
}

template <typename... Fields>
void GetAll(CXDRReader& reader, Fields&... fields) {
  (Get(reader, fields), ...);
}

/// Does the work and puts the text over whatever it throws.
template <typename Work>
void Wrapped(const char* text, Work&& work) {
  try {
    work();
  } catch (const std::exception& exception) {
    exc::ChainTextAndThrow(text, exception);
  }
}

}  // namespace nfs_wire
