#include "transports/async/async_server_state.h"

#include <utility>

void CAsyncServerState::SetInitDone() {
  {
    const std::lock_guard guard(lock_);
    initDone_ = true;
  }
  changed_.notify_all();
}

void CAsyncServerState::SetFinished(boost::shared_ptr<exc::exc_base_t> error) {
  {
    const std::lock_guard guard(lock_);
    finished_ = true;
    error_ = std::move(error);
  }
  changed_.notify_all();
}

CAsyncServerState::reached_t CAsyncServerState::WaitForAny(std::chrono::milliseconds limit) const {
  std::unique_lock guard(lock_);
  changed_.wait_for(guard, limit, [this] { return initDone_ || finished_; });
  if (initDone_) {
    return reached_t::InitDone;
  }
  return finished_ ? reached_t::Finished : reached_t::Neither;
}

boost::shared_ptr<exc::exc_base_t> CAsyncServerState::Error() const {
  const std::lock_guard guard(lock_);
  return error_;
}
