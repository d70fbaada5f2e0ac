// A pool of the events that callers wait on.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <mutex>
#include <vector>

#include "foundation/events.h"

/// Events that are free for use, at most 100 of them. Any thread.
class CCompletionEventsAllocator {
 public:
  static constexpr std::size_t MaxFree = 100;

  CCompletionEventsAllocator();

  /// An event that is not set.
  boost::shared_ptr<synch::manual_event_t> Acquire();
  /// Resets the event and keeps it for the next caller, or drops it when enough are kept.
  void Release(const boost::shared_ptr<synch::manual_event_t>& event) noexcept;
  std::size_t FreeCount() const;

 private:
  mutable std::mutex lock_;
  /// A ring of MaxFree places: taken from the head, given back behind the tail.
  std::vector<boost::shared_ptr<synch::manual_event_t>> free_;
  std::size_t head_ = 0;
  std::size_t count_ = 0;
};
