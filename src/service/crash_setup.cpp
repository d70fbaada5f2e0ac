#include "service/crash_setup.h"

#include <boost/make_shared.hpp>
#include <vector>

#include "config/common_options.h"
#include "foundation/crash/crash.h"
#include "foundation/log.h"
#include "foundation/log_setup.h"
#include "foundation/perf_logger.h"
#include "service/service_state.h"

namespace {

constexpr char DumpName[] = "NFS";

/// What happened right before a crash is what the performance log is asked for afterwards. Its lock may be held by the
/// crashed thread: the step is given up then.
class CFlushPerfLogStep : public crash::deinit_step_t {
 public:
  void Run() override { perf::FlushLog(); }
};

/// The manager hears of the end before it comes: it waits for the dump, and knows what the service was doing.
class CReportStopStep : public crash::deinit_step_t {
 public:
  void Run() override { ReportServiceState(service_state_t::StopPending); }
};

}  // namespace

void InstallCrashHandler() {
  crash::Install(crash::DumpingHandler());
  crash::SetName(DumpName, logging::GetLogPath());
  // They stay for the life of the process.
  static auto* const steps = new std::vector<crash::deinit_seq_t::registration_t>;
  if (!steps->empty())
    return;
  steps->push_back(crash::AddDeinitStep(boost::make_shared<CFlushPerfLogStep>()));
  steps->push_back(crash::AddDeinitStep(boost::make_shared<CReportStopStep>()));
}

void ApplyCrashOptions() noexcept {
  try {
    const CCommonOptions& common = CCommonOptions::Instance();
    crash::dump_options_t options;
    options.type = common.miniDumpModeType;
    options.mask = common.miniDumpModeMask;
    options.outOfProcess = common.outOfProcDumpGen;
    crash::ChooseGenerator(options);
  } catch (const std::exception& failure) {
    g_log.Error("Cannot choose how a crash is recorded.", failure);
  }
}
