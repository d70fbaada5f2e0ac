#include "transports/sync/protocol_server_thread.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"

namespace {

constexpr std::uint32_t StopLimitMs = 7200000;

}  // namespace

CProtocolServerThread::CProtocolServerThread(SProtocolServerParams params) : params_(std::move(params)) {
  try {
    terminate_ = boost::make_shared<synch::term_mediator_t>();
    thread_ =
        boost::make_shared<synch::thread_t>("Protocol server", synch::thread_exec_proc_t([this] { ThreadProc(); }));
    g_nfs_log.Info("Protocol handlers were started.");
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to start protocol handlers.", failure);
  }
}

CProtocolServerThread::~CProtocolServerThread() {
  try {
    if (thread_->WaitFor(0))
      return;
    g_nfs_log.Info("Generating signal to stop protocol handlers.");
    terminate_->Terminate();
    thread_->WaitOrThrow(StopLimitMs);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to stop protocol handlers.", failure);
  }
}

void CProtocolServerThread::ThreadProc() noexcept {
  try {
    CProtocolServer server(params_, terminate_);
    server.Run();
  } catch (const exc::term_exc_t&) {
    g_nfs_log.Info("Protocol handlers were stopped.");
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Fatal error of the dispatcher thread.", failure);
  }
}
