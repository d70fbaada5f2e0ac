#include "foundation/term_mediator.h"

#include <algorithm>

#include "foundation/exc.h"
#include "foundation/log.h"

namespace synch {

void CStopEvtCollection::Add(const boost::shared_ptr<manual_event_t>& event) {
  const std::lock_guard<std::mutex> guard(lock_);
  events_.push_back(event);
  if (allSet_)
    event->Set();
}

void CStopEvtCollection::Remove(const boost::shared_ptr<manual_event_t>& event) {
  const std::lock_guard<std::mutex> guard(lock_);
  const auto place = std::find(events_.begin(), events_.end(), event);
  if (place != events_.end())
    events_.erase(place);
}

void CStopEvtCollection::SetAll() {
  const std::lock_guard<std::mutex> guard(lock_);
  allSet_ = true;
  for (const auto& event : events_)
    event->Set();
}

std::size_t CStopEvtCollection::Size() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return events_.size();
}

CStopEvtThreadRegistration::CStopEvtThreadRegistration(CStopEvtCollection& collection,
                                                       boost::shared_ptr<manual_event_t> event)
    : collection_(collection), event_(std::move(event)) {
  collection_.Add(event_);
}

CStopEvtThreadRegistration::~CStopEvtThreadRegistration() {
  try {
    collection_.Remove(event_);
  } catch (const std::exception& failure) {
    g_log.Error("At ~CStopEvtThreadRegistration.", failure);
  }
}

void term_mediator_t::Terminate() {
  stopEvent_.Set();
  stopEvents_.SetAll();
}

void term_mediator_t::Wait(std::uint32_t limitMs) {
  if (stopEvent_.Wait(limitMs))
    throw exc::term_exc_t();
}

}  // namespace synch
