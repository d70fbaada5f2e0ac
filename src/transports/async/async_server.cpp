#include "transports/async/async_server.h"

#include <boost/make_shared.hpp>
#include <memory>
#include <utility>

#include "config/address_checker.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/win_thread.h"
#include "rpc/service_ports.h"
#include "transports/async/async_connection.h"
#include "transports/async/async_server_state.h"
#include "transports/async/async_udp_channel.h"
#include "transports/async/completion_port.h"
#include "transports/async/request_queue.h"
#include "transports/async/tcp_acceptor.h"

namespace {

using acceptor_t = win::CTcpAcceptor<impl::CAsyncConnection>;
using acceptor_ptr = boost::intrusive_ptr<acceptor_t>;
using queue_ptr = boost::shared_ptr<impl::CRequestQueue>;

constexpr std::chrono::milliseconds InitWait{30000};
constexpr std::uint32_t StopLimitMs = 60000;

/// Ends an object of the port. The loop has ended, or has not begun.
template <typename Pointer>
void Drop(Pointer& object) {
  if (object) {
    object->AbandonIo();
    object.reset();
  }
}

void Drop(queue_ptr& queue) {
  if (queue) {
    queue->Stop();
    queue.reset();
  }
}

}  // namespace

/// What the server's thread works with. Used by that thread alone but for the port and the state.
class CAsyncServer::CContext {
 public:
  explicit CContext(SAsyncServerParams params)
      : params_(std::move(params)), port_(boost::make_shared<synch::completion_port_t>()) {}

  const boost::shared_ptr<synch::completion_port_t>& Port() const { return port_; }
  CAsyncServerState& State() { return state_; }

  void Run() noexcept;

 private:
  void Serve();
  void SetUp();
  void SetUpPortmapper();
  void DropPortmapper();
  void StartRegistration();
  void Release() noexcept;
  acceptor_ptr MakeAcceptor(const char* label, std::uint16_t port, bool waitWhileTaken, queue_ptr& queue);
  win::SPortBinding Binding(const char* label, std::uint16_t port, bool waitWhileTaken) const;

  const SAsyncServerParams params_;
  const boost::shared_ptr<synch::completion_port_t> port_;
  CAsyncServerState state_;

  queue_ptr mountQueue_;
  queue_ptr nfsQueue_;
  queue_ptr portmapQueue_;
  acceptor_ptr mountAcceptor_;
  acceptor_ptr nfsAcceptor_;
  acceptor_ptr portmapAcceptor_;
  boost::intrusive_ptr<impl::CAsyncUdpChannel> portmapUdpChannel_;
  std::unique_ptr<win::win_thread_t> registration_;
};

void CAsyncServer::CContext::Run() noexcept {
  try {
    Serve();
    state_.SetFinished(nullptr);
    Release();
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Fatal error of the TCP server loop.", failure);
    const auto copy = exc::CloneIfPossible(failure);
    // Before anyone hears of it: who tries again at once finds the ports free.
    Release();
    state_.SetFinished(copy);
    if (params_.crashSink) {
      params_.crashSink->OnCrash(failure);
    }
  }
}

void CAsyncServer::CContext::Serve() {
  {
    logging::log_scope_t scope(g_nfs_log, "Initializing TCP/UDP handlers.");
    SetUp();
    scope.Success("TCP/UDP handlers were initialized.");
  }
  state_.SetInitDone();
  port_->Run();
}

void CAsyncServer::CContext::SetUp() {
  if (params_.prepareRegistration) {
    params_.prepareRegistration();
  }
  mountQueue_ = boost::make_shared<impl::CRequestQueue>("mount", params_.mountProgram, port_);
  nfsQueue_ = boost::make_shared<impl::CRequestQueue>("nfs", params_.nfsProgram, port_, params_.nfsForesight);
  mountAcceptor_ = MakeAcceptor("mount service", params_.mountPort, true, mountQueue_);
  nfsAcceptor_ = MakeAcceptor("nfs", params_.nfsPort, true, nfsQueue_);
  ServicePorts().mount = mountAcceptor_->BoundPort();
  ServicePorts().nfs = nfsAcceptor_->BoundPort();
  SetUpPortmapper();
  StartRegistration();
  nfsAcceptor_->StartAccept();
  mountAcceptor_->StartAccept();
}

void CAsyncServer::CContext::SetUpPortmapper() {
  try {
    portmapAcceptor_ = MakeAcceptor("portmapper", params_.portmapPort, false, portmapQueue_);
    portmapQueue_ = boost::make_shared<impl::CRequestQueue>("portmapper", params_.portmapProgram, port_);
    portmapAcceptor_->StartAccept();
    portmapUdpChannel_ =
        new impl::CAsyncUdpChannel(Binding("portmapper", portmapAcceptor_->BoundPort(), false), portmapQueue_);
    port_->Associate(*portmapUdpChannel_);
    portmapUdpChannel_->Start();
  } catch (const exc::win_sys_exc_t& failure) {
    if (failure.Code() != platform::error::WsaAddressInUse) {
      throw;
    }
    g_nfs_log.Info("Port %1 belongs to another portmapper.", params_.portmapPort);
    DropPortmapper();
  }
}

void CAsyncServer::CContext::DropPortmapper() {
  Drop(portmapUdpChannel_);
  Drop(portmapAcceptor_);
}

void CAsyncServer::CContext::StartRegistration() {
  if (!params_.registrationProc) {
    return;
  }
  try {
    registration_ = std::make_unique<win::win_thread_t>("RegisterOnPortmapProc", params_.registrationProc);
    registration_->Start();
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Cannot create RegisterOnPortmapProc thread.", failure);
  }
}

void CAsyncServer::CContext::Release() noexcept {
  try {
    DropPortmapper();
    Drop(nfsAcceptor_);
    Drop(mountAcceptor_);
    Drop(portmapQueue_);
    Drop(nfsQueue_);
    Drop(mountQueue_);
    // Connections that wait for their peers; the registration, if it still talks to ourselves, ends with them.
    port_->Abandon();
    if (registration_) {
      if (params_.abortRegistration) {
        params_.abortRegistration();
      }
      registration_->Join(StopLimitMs);
    }
  } catch (const std::exception& failure) {
    g_nfs_log.Error("TCP processing thread is failed.", failure);
  }
}

acceptor_ptr CAsyncServer::CContext::MakeAcceptor(const char* label, std::uint16_t port, bool waitWhileTaken,
                                                  queue_ptr& queue) {
  const auto onConnection = [this, &queue](const sockaddr* peer, socklen_t length,
                                           const acceptor_t::connection_ptr& connection) {
    connection->Start(peer, length, queue, params_.addressChecker.get());
  };
  return new acceptor_t(port_, Binding(label, port, waitWhileTaken), onConnection, params_.pause);
}

win::SPortBinding CAsyncServer::CContext::Binding(const char* label, std::uint16_t port, bool waitWhileTaken) const {
  win::SPortBinding binding;
  binding.port = port;
  binding.label = label;
  binding.waitWhileTaken = waitWhileTaken;
  if (params_.pause) {
    binding.pause = params_.pause;
  }
  return binding;
}

CAsyncServer::CAsyncServer(SAsyncServerParams params) : context_(boost::make_shared<CContext>(std::move(params))) {
  thread_ = boost::make_shared<win::win_thread_t>("Async server", [context = context_] { context->Run(); });
  thread_->Start();
  try {
    WaitForInit();
  } catch (const std::exception&) {
    Stop();
    throw;
  }
}

CAsyncServer::~CAsyncServer() {
  Stop();
}

void CAsyncServer::WaitForInit() {
  using reached_t = CAsyncServerState::reached_t;
  CAsyncServerState& state = context_->State();
  reached_t reached = state.WaitForAny(InitWait);
  while (reached == reached_t::Neither) {
    g_nfs_log.Warning("TCP server initialization is still in progress.");
    reached = state.WaitForAny(InitWait);
  }
  if (reached == reached_t::InitDone) {
    return;
  }
  if (reached != reached_t::Finished) {
    throw exc::runtime_exc_t("Unexpected state of the TCP server instead of \"init done\".");
  }
  if (const auto error = state.Error()) {
    error->Rethrow();
  }
  g_nfs_log.Warning("TCP server finished its work, but initialization phase was missed.");
  throw exc::runtime_exc_t("TCP server finished unexpectedly.");
}

void CAsyncServer::Stop() noexcept {
  if (!thread_) {
    return;
  }
  try {
    g_nfs_log.Info("Stopping tcp dispatch thread.");
    context_->Port()->Stop();
    thread_->Join(StopLimitMs);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to dispose TCP dispatcher.", failure);
    // The thread keeps the context as long as it needs it.
    thread_->Detach();
  }
  thread_.reset();
  context_.reset();
}
