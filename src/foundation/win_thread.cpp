#include "foundation/win_thread.h"

#include <pthread.h>

#include <boost/make_shared.hpp>
#include <optional>

#include "foundation/events.h"
#include "foundation/exc.h"
#include "foundation/monitoring.h"
#include "foundation/thread_entry.h"

namespace win {

struct win_thread_t::state_t {
  std::string name;
  synch::thread_exec_proc_t procedure;
  std::uint32_t parentId = 0;
  std::optional<monitoring::thread_record_t> record;
  /// Set when nothing of the thread is left but its return.
  synch::manual_event_t finished;
};

namespace {

template <typename State>
void* Entry(void* argument) {
  const std::unique_ptr<boost::shared_ptr<State>> state(static_cast<boost::shared_ptr<State>*>(argument));
  synch::impl::RunThread(*(*state)->record, (*state)->name, (*state)->parentId, (*state)->procedure);
  (*state)->finished.Set();
  return nullptr;
}

}  // namespace

win_thread_t::win_thread_t(std::string name, synch::thread_exec_proc_t procedure)
    : state_(boost::make_shared<state_t>()) {
  state_->name = std::move(name);
  state_->procedure = std::move(procedure);
}

win_thread_t::~win_thread_t() {
  if (!started_ || joined_)
    return;
  const auto thread = static_cast<pthread_t>(handle_);
  if (::pthread_equal(thread, ::pthread_self())) {
    Detach();
  } else {
    ::pthread_join(thread, nullptr);
  }
}

void win_thread_t::Detach() noexcept {
  if (!started_ || joined_)
    return;
  ::pthread_detach(static_cast<pthread_t>(handle_));
  joined_ = true;
}

void win_thread_t::Start() {
  state_->parentId = monitoring::CurrentThreadId();
  state_->record.emplace(state_->name, state_->parentId);
  auto argument = std::make_unique<boost::shared_ptr<state_t>>(state_);
  pthread_t thread = 0;
  const int failure = ::pthread_create(&thread, nullptr, &Entry<state_t>, argument.get());
  if (failure != 0)
    throw exc::win_sys_exc_t("Cannot create thread.", platform::ErrorFromErrno(failure));
  static_cast<void>(argument.release());  // The thread owns it now.
  handle_ = static_cast<std::uint64_t>(thread);
  started_ = true;
}

void win_thread_t::Join(std::uint32_t limitMs) {
  if (!started_ || joined_)
    return;
  if (!state_->finished.Wait(limitMs))
    throw exc::runtime_exc_t("Thread failed to stop during specified time");
  ::pthread_join(static_cast<pthread_t>(handle_), nullptr);
  joined_ = true;
}

const std::string& win_thread_t::Name() const noexcept {
  return state_->name;
}

}  // namespace win
