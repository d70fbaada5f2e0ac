#include "transports/sync/xdr_session_stop_ctx.h"

#include <boost/make_shared.hpp>

#include "transports/sockets/close_tcp_connection.h"

CXdrSessionStopCtx::CXdrSessionStopCtx() : event_(boost::make_shared<synch::manual_event_t>()) {}

void CXdrSessionStopCtx::ReportError(const std::exception&) noexcept {
  Leave(state_t::Closed);
}

void CXdrSessionStopCtx::Leave(state_t state) noexcept {
  const std::lock_guard guard(lock_);
  if (state_ != state_t::Running)
    return;
  state_ = state;
  event_->Set();
}

CXdrSessionStopCtx::state_t CXdrSessionStopCtx::State() const noexcept {
  const std::lock_guard guard(lock_);
  return state_;
}

void CXdrSessionStopCtx::Rethrow() const {
  boost::shared_ptr<exc::exc_base_t> error;
  {
    const std::lock_guard guard(lock_);
    if (state_ == state_t::Closed)
      throw CCloseTCPConnection();
    if (state_ == state_t::Failed)
      error = error_;
  }
  if (error != nullptr)
    error->Rethrow();
}
