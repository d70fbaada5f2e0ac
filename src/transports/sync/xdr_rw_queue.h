// Records on their way from one thread of a session to the next.
#pragma once

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <list>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "foundation/events.h"

/// A list that is handed over whole. T: CXDRReader or CXDRWriter. One thread pushes and one takes; any thread may.
template <typename T>
class CXDRRwQueue {
 public:
  using items_t = std::list<boost::shared_ptr<T>>;
  static constexpr std::size_t MaxItems = 0xFFFFFFE;

  explicit CXDRRwQueue(std::size_t maxItems = MaxItems)
      : maxItems_(maxItems), event_(boost::make_shared<synch::manual_event_t>()) {}
  CXDRRwQueue(const CXDRRwQueue&) = delete;
  CXDRRwQueue& operator=(const CXDRRwQueue&) = delete;

  /// Both throw std::length_error, and append nothing, when the queue would hold more than it can.
  void Push(boost::shared_ptr<T> item) {
    items_t one;
    one.push_back(std::move(item));
    PushList(one);
  }
  /// Moves all of the list, which is empty afterwards.
  void PushList(items_t& list) {
    const std::lock_guard guard(lock_);
    if (list.size() > maxItems_ - items_.size())
      throw std::length_error("list<T> too long");
    items_.splice(items_.end(), list);
    if (!items_.empty())
      event_->Set();
  }
  /// Appends everything to the list.
  void TakeAll(items_t& out) {
    const std::lock_guard guard(lock_);
    out.splice(out.end(), items_);
    event_->Reset();
  }

  /// Set exactly while there may be something to take.
  synch::manual_event_t& Event() const noexcept { return *event_; }
  /// For a wait that outlives the queue.
  const boost::shared_ptr<synch::manual_event_t>& SharedEvent() const noexcept { return event_; }

 private:
  const std::size_t maxItems_;
  const boost::shared_ptr<synch::manual_event_t> event_;
  std::mutex lock_;
  items_t items_;  // Guarded by lock_.
};
