// Performance logs with times that a test chooses.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/perf_events.h"

namespace test {

template <typename Data>
std::string BytesOfData(const Data& data) {
  return {reinterpret_cast<const char*>(&data), sizeof(data)};
}

inline std::string PerfRecord(std::int64_t time, std::uint32_t type, std::uint32_t thread, std::string_view data) {
  const perf::record_header_t header{time, type, static_cast<std::uint32_t>(data.size()), thread};
  return BytesOfData(header).append(data);
}

/// One READ or WRITE, from its two events.
inline std::string Operation(bool isRead, std::int64_t begin, std::int64_t end, std::uint32_t thread = 100,
                             std::uint32_t count = 4096, bool success = true, std::uint64_t fid = 7,
                             std::uint64_t offset = 0) {
  namespace event = perf::event;
  return PerfRecord(begin, isRead ? event::ReadBegin : event::WriteBegin, thread,
                    BytesOfData(perf::io_begin_t{fid, offset, count})) +
         PerfRecord(end, isRead ? event::ReadEnd : event::WriteEnd, thread,
                    BytesOfData(perf::io_end_t{fid, offset, static_cast<std::uint8_t>(success ? 1 : 0)}));
}

}  // namespace test
