#include "foundation/thread.h"

#include <boost/chrono/duration.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>
#include <mutex>
#include <utility>

#include "foundation/monitoring.h"
#include "foundation/thread_entry.h"

namespace synch {

/// What thread and owner share: a thread that was let go keeps it to its end.
struct thread_t::state_t {
  state_t(std::string roleOfThread, boost::shared_ptr<thread_exec_proc_t> itsProcedure)
      : role(std::move(roleOfThread)), procedure(std::move(itsProcedure)), record(role, parentId) {}

  const std::string role;
  const boost::shared_ptr<thread_exec_proc_t> procedure;
  const std::uint32_t parentId = monitoring::CurrentThreadId();
  /// The thread's from its begin.
  monitoring::thread_record_t record;
  std::mutex lock;
  /// Guarded by lock.
  boost::shared_ptr<exc::exc_base_t> exception;
};

thread_t::thread_t(std::string role, boost::shared_ptr<thread_exec_proc_t> procedure)
    : state_(boost::make_shared<state_t>(std::move(role), std::move(procedure))) {
  thread_ = std::make_unique<boost::thread>([state = state_] {
    auto failure = impl::RunThread(state->record, state->role, state->parentId, *state->procedure);
    const std::lock_guard<std::mutex> guard(state->lock);
    state->exception = std::move(failure);
  });
}

thread_t::thread_t(std::string role, thread_exec_proc_t procedure)
    : thread_t(std::move(role), boost::make_shared<thread_exec_proc_t>(std::move(procedure))) {}

thread_t::~thread_t() {
  try {
    if (!thread_->joinable())
      return;
    if (thread_->get_id() == boost::this_thread::get_id()) {
      thread_->detach();
    } else {
      const boost::this_thread::disable_interruption uninterrupted;
      thread_->join();
    }
  } catch (const std::exception&) {
    // It has been waited for elsewhere.
  }
}

bool thread_t::WaitFor(std::uint32_t limitMs) {
  try {
    if (!thread_->joinable())
      return true;
    if (limitMs == NoLimit) {
      thread_->join();
      return true;
    }
    return thread_->try_join_for(boost::chrono::milliseconds(limitMs));
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to wait for thread [%1] to finish.", failure,
                       state_->role.empty() ? std::string("unknown") : state_->role);
  }
}

void thread_t::Detach() noexcept {
  thread_->detach();
}

void thread_t::WaitOrThrow(std::uint32_t limitMs) {
  if (!WaitFor(limitMs))
    throw exc::runtime_exc_t("Thread not finished within [%1] milliseconds.", limitMs);
}

const std::string& thread_t::Role() const noexcept {
  return state_->role;
}

boost::shared_ptr<exc::exc_base_t> thread_t::Exception() const {
  const std::lock_guard<std::mutex> guard(state_->lock);
  return state_->exception;
}

}  // namespace synch
