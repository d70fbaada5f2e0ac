// The records of a performance log, one after the other.
#pragma once

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/perf_events.h"

namespace perflog {

struct SRecord {
  perf::record_header_t header{};
  std::string data;  ///< At most CLogReader::MaxKept bytes of it.
};

/// The file is no performance log from some byte on; what() tells where and why, in whole sentences.
class damaged_log_t : public std::runtime_error {
 public:
  damaged_log_t(std::uint64_t offset, const std::string& text) : std::runtime_error(text), offset_(offset) {}
  /// Of the first record that cannot be read.
  std::uint64_t Offset() const noexcept { return offset_; }

 private:
  std::uint64_t offset_;
};

/// Reads forward, one record at a time. What the file announces is believed only once it is there, and memory follows
/// what was read. One thread.
class CLogReader {
 public:
  /// Bytes of one record's data that are kept; no event of the service has more.
  static constexpr std::size_t MaxKept = 4096;

  /// The stream is the caller's and outlives the reader.
  explicit CLogReader(std::istream& stream);

  /// The next record; false at the end of the file. Throws damaged_log_t for a record that is not whole or that no
  /// service can have written, and runtime_error for a file that cannot be read.
  bool Next(SRecord& record);

 private:
  std::size_t Take(char* place, std::size_t size);
  void TakeData(SRecord& record);
  void Check(const SRecord& record) const;

  std::istream& stream_;
  /// Of the record that is being read.
  std::uint64_t offset_ = 0;
  std::vector<char> skipped_;
};

}  // namespace perflog
