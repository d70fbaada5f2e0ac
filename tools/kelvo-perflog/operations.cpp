#include "kelvo-perflog/operations.h"

#include "foundation/perf_events.h"

namespace perflog {

namespace event = perf::event;

std::optional<SOperation> COperations::Add(const SRecord& record, const SDetails& details) {
  const std::uint32_t type = record.header.eventType;
  const bool isRead = type == event::ReadBegin || type == event::ReadEnd;
  const bool isBegin = type == event::ReadBegin || type == event::WriteBegin;
  if (!isBegin && type != event::ReadEnd && type != event::WriteEnd)
    return std::nullopt;
  SUnpaired& unpaired = isRead ? reads_ : writes_;
  const auto found = open_.find({record.header.threadId, isRead});
  if (isBegin) {
    const SBegin begin{*details.fid, *details.offset, *details.bytes, record.header.timestamp};
    if (found == open_.end()) {
      open_.emplace(key_t{record.header.threadId, isRead}, begin);
    } else {
      ++unpaired.begins;
      found->second = begin;
    }
    return std::nullopt;
  }
  if (found == open_.end() || found->second.fid != details.fid || found->second.offset != details.offset) {
    ++unpaired.ends;
    return std::nullopt;
  }
  const SBegin begin = found->second;
  open_.erase(found);
  return SOperation{isRead, *details.success, begin.bytes, begin.time, record.header.timestamp};
}

void COperations::Forget() {
  for (const auto& [key, begin] : open_)
    ++(key.second ? reads_ : writes_).begins;
  open_.clear();
}

SUnpaired COperations::Unpaired(bool isRead) const {
  SUnpaired unpaired = isRead ? reads_ : writes_;
  for (const auto& [key, begin] : open_)
    unpaired.begins += key.second == isRead ? 1 : 0;
  return unpaired;
}

}  // namespace perflog
