// The performance log as a test reads it.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

struct SPerfRecord {
  std::int64_t timestamp = 0;
  std::uint32_t eventType = 0;
  std::uint32_t threadId = 0;
  std::string data;

  /// The data as one of the packed records.
  template <typename Record>
  Record As() const {
    Record record{};
    if (data.size() != sizeof(record))
      throw std::runtime_error("the data has another size: " + std::to_string(data.size()));
    std::memcpy(&record, data.data(), sizeof(record));
    return record;
  }
};

inline std::string BytesOfFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// Takes the file apart by the offsets of the format, not by the code under test. Throws when it ends inside a record.
inline std::vector<SPerfRecord> ReadPerfLog(const std::string& path) {
  const std::string bytes = BytesOfFile(path);
  std::vector<SPerfRecord> records;
  for (std::size_t at = 0; at < bytes.size();) {
    const auto take = [&](std::size_t offset, auto& number) {
      if (bytes.size() - at < offset + sizeof(number))
        throw std::runtime_error("the log ends inside a header");
      std::memcpy(&number, bytes.data() + at + offset, sizeof(number));
    };
    SPerfRecord record;
    std::uint32_t size = 0;
    take(0, record.timestamp);
    take(8, record.eventType);
    take(12, size);
    take(16, record.threadId);
    at += 20;
    if (bytes.size() - at < size)
      throw std::runtime_error("the log ends inside the data of a record");
    record.data = bytes.substr(at, size);
    at += size;
    records.push_back(std::move(record));
  }
  return records;
}

/// The records of one event.
inline std::vector<SPerfRecord> ReadPerfLog(const std::string& path, std::uint32_t eventType) {
  std::vector<SPerfRecord> records = ReadPerfLog(path);
  std::erase_if(records, [eventType](const SPerfRecord& record) { return record.eventType != eventType; });
  return records;
}

}  // namespace test
