#include "kelvo-perflog/log_reader.h"

#include <algorithm>

#include "foundation/exc.h"
#include "kelvo-perflog/event_kinds.h"

namespace perflog {
namespace {

/// No thread of Linux has a higher id.
constexpr std::uint32_t HighestThreadId = 4194304;

}  // namespace

CLogReader::CLogReader(std::istream& stream) : stream_(stream), skipped_(MaxKept) {}

bool CLogReader::Next(SRecord& record) {
  const std::size_t taken = Take(reinterpret_cast<char*>(&record.header), sizeof(record.header));
  if (taken == 0)
    return false;
  if (taken < sizeof(record.header)) {
    throw damaged_log_t(offset_, exc::FormatText("The file ends inside the header of the record at byte %1: %2 of its "
                                                 "%3 bytes are there.",
                                                 offset_, taken, sizeof(record.header)));
  }
  Check(record);
  TakeData(record);
  offset_ += sizeof(record.header) + record.header.dataSize;
  return true;
}

std::size_t CLogReader::Take(char* place, std::size_t size) {
  stream_.read(place, static_cast<std::streamsize>(size));
  if (stream_.bad())
    throw std::runtime_error("The file cannot be read.");
  return static_cast<std::size_t>(stream_.gcount());
}

void CLogReader::TakeData(SRecord& record) {
  const std::size_t size = record.header.dataSize;
  record.data.resize(std::min(size, MaxKept));
  std::size_t taken = Take(record.data.data(), record.data.size());
  bool isWhole = taken == record.data.size();
  while (isWhole && taken < size) {
    const std::size_t step = std::min(size - taken, skipped_.size());
    const std::size_t skipped = Take(skipped_.data(), step);
    taken += skipped;
    isWhole = skipped == step;
  }
  if (!isWhole) {
    throw damaged_log_t(offset_,
                        exc::FormatText("The record at byte %1 announces %2 bytes of data, and %3 are there: the file "
                                        "is cut short or damaged.",
                                        offset_, size, taken));
  }
}

void CLogReader::Check(const SRecord& record) const {
  const perf::record_header_t& header = record.header;
  const SEventKind* const kind = FindEventKind(header.eventType);
  std::string why;
  if (header.timestamp < 0)
    why = "its time is negative";
  else if (header.threadId == 0 || header.threadId > HighestThreadId)
    why = exc::FormatText("no thread has the id %1", header.threadId);
  else if (kind != nullptr && kind->dataSize != AnySize && kind->dataSize != header.dataSize)
    why =
        exc::FormatText("event %1 has %2 bytes of data and not %3", header.eventType, kind->dataSize, header.dataSize);
  if (why.empty())
    return;
  throw damaged_log_t(offset_,
                      exc::FormatText(offset_ == 0 ? "This is no performance log: the record at byte %1 cannot "
                                                     "be one, %2."
                                                   : "The record at byte %1 is damaged: %2.",
                                      offset_, why));
}

}  // namespace perflog
