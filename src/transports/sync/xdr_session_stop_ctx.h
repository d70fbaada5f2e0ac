// Why a session ends, told by whichever of its threads knows first.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <exception>
#include <mutex>

#include "foundation/events.h"
#include "foundation/exc.h"

/// One for a session, shared by its three threads. The first reason stays. Any thread.
class CXdrSessionStopCtx {
 public:
  enum class state_t : std::uint32_t {
    Running = 0,
    Closed = 1,   ///< The peer closed the connection, or a thread failed.
    Failed = 2,   ///< Rethrow throws the stored failure; nobody stores one.
    Stopped = 3,  ///< The session's owner ends it.
  };

  CXdrSessionStopCtx();
  CXdrSessionStopCtx(const CXdrSessionStopCtx&) = delete;
  CXdrSessionStopCtx& operator=(const CXdrSessionStopCtx&) = delete;

  void ReportClosed() noexcept { Leave(state_t::Closed); }
  /// The others see a closed connection; the failure is for the log of the thread that met it.
  void ReportError(const std::exception& failure) noexcept;
  void ForceStop() noexcept { Leave(state_t::Stopped); }

  bool IsStopped() const noexcept { return State() != state_t::Running; }
  state_t State() const noexcept;
  /// Throws CCloseTCPConnection when the connection is closed, and the stored failure when there is one; returns
  /// otherwise.
  void Rethrow() const;
  /// Set once the session is to end.
  const boost::shared_ptr<synch::manual_event_t>& Event() const noexcept { return event_; }

 private:
  void Leave(state_t state) noexcept;

  mutable std::mutex lock_;
  // Guarded by lock_.
  state_t state_ = state_t::Running;
  boost::shared_ptr<exc::exc_base_t> error_;
  const boost::shared_ptr<synch::manual_event_t> event_;
};
