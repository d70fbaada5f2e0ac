#include "vfs/items/completion_events_allocator.h"

#include <boost/make_shared.hpp>
#include <utility>

CCompletionEventsAllocator::CCompletionEventsAllocator() : free_(MaxFree) {}

boost::shared_ptr<synch::manual_event_t> CCompletionEventsAllocator::Acquire() {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    if (count_ > 0) {
      auto event = std::move(free_[head_]);
      head_ = (head_ + 1) % MaxFree;
      --count_;
      return event;
    }
  }
  return boost::make_shared<synch::manual_event_t>();
}

void CCompletionEventsAllocator::Release(const boost::shared_ptr<synch::manual_event_t>& event) noexcept {
  event->Reset();
  const std::lock_guard<std::mutex> guard(lock_);
  if (count_ < MaxFree)
    free_[(head_ + count_++) % MaxFree] = event;
}

std::size_t CCompletionEventsAllocator::FreeCount() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return count_;
}
