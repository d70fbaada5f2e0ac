// How much one thread of a session has handed on that the next has not finished.
#pragma once

#include <cstddef>
#include <mutex>

#include "foundation/events.h"

/// Counts records and their bytes between two threads of a session, so that the first can wait while there are too
/// many: a peer that sends calls and takes no replies costs this much and no more. Any thread.
class CXdrBacklog {
 public:
  CXdrBacklog(std::size_t maxRecords, std::size_t maxBytes);
  CXdrBacklog(const CXdrBacklog&) = delete;
  CXdrBacklog& operator=(const CXdrBacklog&) = delete;

  /// One record. What is added to a backlog without room counts all the same.
  void Add(std::size_t bytes) noexcept;
  /// One record that was added with as many bytes.
  void Remove(std::size_t bytes) noexcept;

  bool HasRoom() const noexcept { return room_.IsSet(); }
  /// Set exactly while there is room.
  synch::manual_event_t& RoomEvent() noexcept { return room_; }

 private:
  void UpdateLocked() noexcept;

  const std::size_t maxRecords_;
  const std::size_t maxBytes_;
  synch::manual_event_t room_{true};
  std::mutex lock_;
  // Guarded by lock_.
  std::size_t records_ = 0;
  std::size_t bytes_ = 0;
};
