#include "rpc/xdr_completion_queue.h"

#include <boost/make_shared.hpp>

CXDRCompletionQueueInternal::CXDRCompletionQueueInternal() : event_(boost::make_shared<synch::manual_event_t>()) {}

boost::shared_ptr<CXDRCallCompletionRecInternal> CXDRCompletionQueueInternal::Append(
    const boost::shared_ptr<CXDRWriter>& writer, bool ready, std::size_t weight) {
  auto record = boost::make_shared<CXDRCallCompletionRecInternal>();
  record->writer = writer;
  record->ready = ready;
  const std::lock_guard guard(lock_);
  items_.push_back(record);
  SetWeightLocked(*record, PlaceWeight + weight);
  UpdateEventLocked();
  return record;
}

void CXDRCompletionQueueInternal::Complete(CXDRCallCompletionRecInternal& record) noexcept {
  const std::lock_guard guard(lock_);
  if (closed_ || record.ready)
    return;
  record.ready = true;
  SetWeightLocked(record, PlaceWeight + record.writer->Used());
  UpdateEventLocked();
}

void CXDRCompletionQueueInternal::Abandon(CXDRCallCompletionRecInternal& record) noexcept {
  const std::lock_guard guard(lock_);
  if (closed_ || record.ready)
    return;
  record.ready = true;
  hasLostReply_ = true;
  record.writer.reset();
  SetWeightLocked(record, PlaceWeight);
  UpdateEventLocked();
}

void CXDRCompletionQueueInternal::TakeFinished(xdr_replies_t& out) {
  const std::lock_guard guard(lock_);
  while (!items_.empty() && items_.front()->ready) {
    CXDRCallCompletionRecInternal& record = *items_.front();
    if (record.writer != nullptr)
      out.push_back(record.writer);
    SetWeightLocked(record, 0);
    items_.pop_front();
  }
  event_->Reset();
}

void CXDRCompletionQueueInternal::Close() noexcept {
  items_t dropped;
  {
    const std::lock_guard guard(lock_);
    closed_ = true;
    weight_ = 0;
    dropped.swap(items_);
    event_->Reset();
  }
  // A reply that is still being made is kept by its maker.
}

std::size_t CXDRCompletionQueueInternal::Weight() const noexcept {
  const std::lock_guard guard(lock_);
  return weight_;
}

bool CXDRCompletionQueueInternal::IsEmpty() const noexcept {
  const std::lock_guard guard(lock_);
  return items_.empty();
}

bool CXDRCompletionQueueInternal::HasLostReply() const noexcept {
  const std::lock_guard guard(lock_);
  return hasLostReply_;
}

void CXDRCompletionQueueInternal::UpdateEventLocked() noexcept {
  if (!items_.empty() && items_.front()->ready) {
    event_->Set();
  } else {
    event_->Reset();
  }
}

void CXDRCompletionQueueInternal::SetWeightLocked(CXDRCallCompletionRecInternal& record, std::size_t weight) noexcept {
  weight_ += weight - record.weight;
  record.weight = weight;
}

CXDRCompletionQueue::CXDRCompletionQueue() : internal_(boost::make_shared<CXDRCompletionQueueInternal>()) {}

CXDRCompletionQueue::~CXDRCompletionQueue() {
  internal_->Close();
}

void CXDRCompletionQueue::PostFinished(const boost::shared_ptr<CXDRWriter>& writer) {
  internal_->Append(writer, true, writer->Used());
}

CXDRCallCompletionRec CXDRCompletionQueue::Reserve(const boost::shared_ptr<CXDRWriter>& writer, std::size_t weight) {
  return {internal_, internal_->Append(writer, false, weight)};
}
