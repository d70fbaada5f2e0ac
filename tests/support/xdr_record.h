// What every wire record must hold, and small help with records as bytes.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <span>
#include <vector>

#include "rpc/xdr_reader.h"
#include "rpc/xdr_writer.h"

namespace test {

/// The message in a writer, without its record mark.
inline std::vector<std::uint8_t> MessageOf(const CXDRWriter& writer) {
  io::byte_buffer_t out;
  writer.Finish(out, true);
  return {out.begin() + 4, out.end()};
}

template <typename Record>
std::vector<std::uint8_t> BytesOf(const Record& record) {
  CXDRWriter writer;
  record.Encode(writer);
  return MessageOf(writer);
}

inline CXDRReader ReaderOf(std::span<const std::uint8_t> bytes) {
  return CXDRReader(boost::make_shared<io::byte_buffer_t>(bytes.begin(), bytes.end()));
}

inline std::vector<std::uint8_t> Words(std::initializer_list<std::uint32_t> words) {
  CXDRWriter writer;
  for (const std::uint32_t word : words)
    writer.UInt(word);
  return MessageOf(writer);
}

/// The message as words; its length is a multiple of four.
inline std::vector<std::uint32_t> WordsOf(std::span<const std::uint8_t> bytes) {
  CXDRReader reader = ReaderOf(bytes);
  std::vector<std::uint32_t> words;
  while (reader.Remaining() != 0)
    words.push_back(reader.UInt());
  return words;
}

/// Encodes, decodes, finds it equal with nothing left over, and then cuts it at each byte: each cut must throw.
template <typename Record>
void CheckRecord(const Record& record) {
  const std::vector<std::uint8_t> bytes = BytesOf(record);
  CXDRReader reader = ReaderOf(bytes);
  Record decoded;
  decoded.Decode(reader);
  EXPECT_TRUE(decoded == record);
  EXPECT_EQ(reader.Remaining(), 0U);

  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    CXDRReader shortReader = ReaderOf(std::span(bytes).first(cut));
    Record partial;
    EXPECT_THROW(partial.Decode(shortReader), std::exception) << "cut at " << cut << " of " << bytes.size();
  }
}

}  // namespace test
