#include "service/perf_log_control.h"

#include <string>

#include "config/common_options.h"
#include "config/reg_options.h"
#include "foundation/log.h"
#include "foundation/perf_logger.h"
#include "transports/sockets/socket_ip.h"

void StartPerfLog(const CRegOptions& options) {
  std::string path;
  if (!options.GetPerfLogPath(path) || path.empty())
    return;
  g_log.Info("Perfomance log is enabled. Path to log: \"%1\".", path);
  perf::StartLog(path, CCommonOptions::Instance().perfBufSize);
}

void StopPerfLog() noexcept {
  CSocketIP::WriteStatisticsEvent();
  perf::StopLog();
}
