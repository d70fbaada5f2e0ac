#include "service/service_entry.h"

#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <optional>

#include "config/reg_keys.h"
#include "foundation/log.h"
#include "foundation/log_setup.h"
#include "service/connection_event.h"
#include "service/crash_setup.h"
#include "service/nfs_service.h"
#include "service/run_mode.h"
#include "service/service_state.h"
#include "service/udp_log_receiver.h"

namespace {

constexpr char LogFileName[] = "Svc.KelvoNFS.log";
constexpr int Failed = -1;
constexpr int NoDispatcher = 1;

CNfsService& TheService() {
  static CNfsService service;
  return service;
}

/// Every client costs a descriptor, and every open file one more.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
    return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Start to stop, under the eyes of the service manager. The exit code.
int RunService(const std::optional<CStopSignals>& stopSignals) {
  if (!stopSignals)
    return NoDispatcher;
  CNfsService& service = TheService();
  ReportServiceState(service_state_t::StartPending);
  if (service.Start()) {
    ReportServiceState(service_state_t::Running);
    stopSignals->Wait();
  }
  ReportServiceState(service_state_t::StopPending);
  service.Stop();
  ReportServiceState(service_state_t::Stopped);
  return 0;
}

CCommandLine LogSwitches(const CCommandLine& commandLine, run_mode_t mode) {
  // There "-log" names the output, which would be the log's own file otherwise.
  return mode == run_mode_t::LogReceiver ? commandLine.Without("-log") : commandLine;
}

int RunMode(run_mode_t mode, const CCommandLine& commandLine) {
  std::optional<CStopSignals> stopSignals;
  if (mode == run_mode_t::Service) {
    try {
      stopSignals.emplace();
    } catch (const std::exception&) {
      // Told by the exit code, in its turn.
    }
  }
  logging::InitLog(LogFileName, LogSwitches(commandLine, mode));
  InstallCrashHandler();
  const CConnectionEvent connectionEvent;
  CNfsService& service = TheService();
  service.RpcServerSettings().ReadPortSettings(regkeys::RpcSettings, commandLine,
                                               CRpcServerSettings::DefaultServicePort);
  switch (mode) {
    case run_mode_t::Debug:
      g_log.Info("Launched in debug mode.");
      service.RunDebug(commandLine);
    case run_mode_t::LogReceiver:
      g_log.Info("Launched in UDP Client mode.");
      g_log.Info("Logging UDP datagram.");
      RunUdpLogReceiver(ReadUdpLogReceiverCfg(commandLine));
      return 0;
    default:
      service.SetAsyncRequested(!commandLine.Has("-sync"));
      return RunService(stopSignals);
  }
}

}  // namespace

int RunProcess(int argumentCount, const char* const* arguments) noexcept {
  // A client that goes away in the middle of a reply is told by the send that fails.
  ::signal(SIGPIPE, SIG_IGN);
  // A file size limit of the account is a failure of the write that meets it (223), not the end of the process.
  ::signal(SIGXFSZ, SIG_IGN);
  CCommandLine commandLine;
  try {
    commandLine = CCommandLine(argumentCount, arguments);
  } catch (const std::exception& failure) {
    g_log.Error("Failed to parse command line", failure);
  }
  const run_mode_t mode = ChooseRunMode(commandLine);
  if (mode == run_mode_t::Verify)
    return VerifyConnection();
  RaiseDescriptorLimit();
  try {
    return RunMode(mode, commandLine);
  } catch (const std::exception& failure) {
    g_log.Error("Fatal error", failure);
    std::puts(failure.what());
    std::fflush(stdout);
    return Failed;
  }
}
