#include "foundation/thread_entry.h"

#include <cxxabi.h>

#include <boost/make_shared.hpp>

#include "foundation/log.h"
#include "foundation/monitoring.h"
#include "platform/process.h"
#include "platform/signal_stack.h"

namespace synch::impl {
namespace {

/// For a failure whose copy there is no memory for.
const boost::shared_ptr<exc::exc_base_t> NoMemory = boost::make_shared<exc::runtime_exc_t>("Out of memory.");

boost::shared_ptr<exc::exc_base_t> Report(const std::string& role, const std::exception& failure) noexcept {
  try {
    g_log.Error(exc::FormatText("Thread failed. Role: '%1'.", role), failure);
    return exc::CloneException(failure);
  } catch (const std::exception&) {
    return NoMemory;
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
    failure = Report(role, exc::runtime_exc_t("Unknown exception."));
  }
  g_log.Info("Thread finished. Role: '%1'.", role);
  return failure;
}

}  // namespace synch::impl
