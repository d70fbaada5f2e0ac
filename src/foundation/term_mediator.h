// Asking a group of threads to stop.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <mutex>
#include <vector>

#include "foundation/events.h"

namespace synch {

/// Events that are set to ask for a stop. Any thread; the collection shares the events with who registers them.
class CStopEvtCollection {
 public:
  /// Sets the event at once when SetAll has been called already, so that no stop is missed.
  void Add(const boost::shared_ptr<manual_event_t>& event);
  /// One registration of the event; an event that is not registered is ignored.
  void Remove(const boost::shared_ptr<manual_event_t>& event);
  void SetAll();
  std::size_t Size() const;

 private:
  mutable std::mutex lock_;
  std::vector<boost::shared_ptr<manual_event_t>> events_;
  bool allSet_ = false;
};

/// Registers an event while it lives. The collection must outlive it.
class CStopEvtThreadRegistration {
 public:
  CStopEvtThreadRegistration(CStopEvtCollection& collection, boost::shared_ptr<manual_event_t> event);
  CStopEvtThreadRegistration(const CStopEvtThreadRegistration&) = delete;
  CStopEvtThreadRegistration& operator=(const CStopEvtThreadRegistration&) = delete;
  ~CStopEvtThreadRegistration();

 private:
  CStopEvtCollection& collection_;
  const boost::shared_ptr<manual_event_t> event_;
};

/// The stop signal of a group of threads. Any thread; once terminated it stays so.
class term_mediator_t {
 public:
  term_mediator_t() = default;
  term_mediator_t(const term_mediator_t&) = delete;
  term_mediator_t& operator=(const term_mediator_t&) = delete;

  /// Sets the stop event and all registered events.
  void Terminate();
  bool IsTerminated() const noexcept { return stopEvent_.IsSet(); }
  /// Returns when the limit (milliseconds) passed; throws term_exc_t as soon as termination is asked for.
  void Wait(std::uint32_t limitMs);

  /// For waits together with other things.
  manual_event_t& StopEvent() noexcept { return stopEvent_; }
  CStopEvtCollection& StopEvents() noexcept { return stopEvents_; }

 private:
  manual_event_t stopEvent_;
  CStopEvtCollection stopEvents_;
};

}  // namespace synch
