#include "service/service_state.h"

#include <pthread.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <csignal>

#include "foundation/exc.h"

namespace {

sigset_t StopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

const char* TextOf(service_state_t state) noexcept {
  switch (state) {
    case service_state_t::StartPending:
      return "STATUS=Starting.";
    case service_state_t::Running:
      return "READY=1\nSTATUS=Ready to process incoming calls.";
    case service_state_t::StopPending:
      return "STOPPING=1\nSTATUS=Stopping.";
    case service_state_t::Stopped:
      return "STATUS=Stopped.";
  }
  return "";
}

}  // namespace

void ReportServiceState(service_state_t state) noexcept {
  ::sd_notify(0, TextOf(state));
}

CStopSignals::CStopSignals() {
  const sigset_t set = StopSet();
  const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  if (error != 0)
    throw exc::win_sys_exc_t("Cannot block the stop signals.", platform::ErrorFromErrno(error));
}

void CStopSignals::Wait() const {
  const sigset_t set = StopSet();
  while (::sigwaitinfo(&set, nullptr) < 0) {
    if (errno != EINTR)
      throw exc::win_sys_exc_t("Cannot wait for the stop signals.", platform::LastError());
  }
}
