#include "transports/sync/xdr_backlog.h"

CXdrBacklog::CXdrBacklog(std::size_t maxRecords, std::size_t maxBytes) : maxRecords_(maxRecords), maxBytes_(maxBytes) {}

void CXdrBacklog::Add(std::size_t bytes) noexcept {
  const std::lock_guard guard(lock_);
  ++records_;
  bytes_ += bytes;
  UpdateLocked();
}

void CXdrBacklog::Remove(std::size_t bytes) noexcept {
  const std::lock_guard guard(lock_);
  --records_;
  bytes_ -= bytes;
  UpdateLocked();
}

void CXdrBacklog::UpdateLocked() noexcept {
  const bool hasRoom = records_ < maxRecords_ && bytes_ < maxBytes_;
  if (hasRoom == room_.IsSet())
    return;
  if (hasRoom) {
    room_.Set();
  } else {
    room_.Reset();
  }
}
