// The service's states, for systemd, and the signals that stop it.
#pragma once

enum class service_state_t { StartPending, Running, StopPending, Stopped };

/// Tells the manager, when there is one.
void ReportServiceState(service_state_t state) noexcept;

/// SIGTERM and SIGINT, kept from every thread of the process so that one thread can wait for them. Made before any
/// other thread. A stop that comes early waits until it is asked for.
class CStopSignals {
 public:
  /// Throws win_sys_exc_t when the signals cannot be blocked.
  CStopSignals();
  /// Returns once one of them has come. Throws win_sys_exc_t.
  void Wait() const;
};
