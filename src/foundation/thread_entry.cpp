#include "foundation/thread_entry.h"

#include <cxxabi.h>

#include <boost/make_shared.hpp>

#include "foundation/log.h"
#include "foundation/monitoring.h"
#include "platform/process.h"
#include "platform/signal_stack.h"

namespace synch::impl {
namespace {

boost::shared_ptr<exc::exc_base_t> Report(const std::string& role, const std::exception& failure) noexcept {
  g_log.Error("Thread failed. Role: '%1'.", failure, role);
  return exc::CloneIfPossible(failure);
}

boost::shared_ptr<exc::exc_base_t> ReportUnknown(const std::string& role) noexcept {
  try {
    return Report(role, exc::runtime_exc_t("Unknown exception."));
  } catch (const std::exception& noMemory) {
    return Report(role, noMemory);
  }
}

}  // namespace

boost::shared_ptr<exc::exc_base_t> RunThread(monitoring::thread_record_t& record, const std::string& role,
                                             std::uint32_t parentId, const thread_exec_proc_t& procedure) {
  const platform::signal_stack_t signalStack;
  const monitoring::thread_registration_t registration(record);
  platform::SetThreadName(role);
  g_log.Info("Thread started. Thread id: %1, parent id: %2, role: %3", monitoring::CurrentThreadId(), parentId, role);
  boost::shared_ptr<exc::exc_base_t> failure;
  try {
    procedure();
  } catch (const exc::term_exc_t&) {
    // Told to end.
  } catch (const std::exception& exception) {
    failure = Report(role, exception);
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    failure = ReportUnknown(role);
  }
  g_log.Info("Thread finished. Role: '%1'.", role);
  return failure;
}

}  // namespace synch::impl
