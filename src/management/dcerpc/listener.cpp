#include "management/dcerpc/listener.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "foundation/log.h"
#include "foundation/monitoring.h"
#include "platform/process.h"
#include "platform/signal_stack.h"

namespace dcerpc {
namespace {

constexpr int ShortageMilliseconds = 100;
constexpr const char* AcceptorRole = "Management acceptor";
constexpr const char* ConnectionRole = "Management connection";

platform::descriptor_t NewEvent() {
  platform::descriptor_t event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event.IsOpen())
    throw exc::win_sys_exc_t("Failed to create an event.", platform::LastError());
  return event;
}

/// A peer that vanished is noticed, and small answers leave at once.
void PrepareTcp(int socket) {
  const int on = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

void TellShortage(platform::error_t error) noexcept {
  try {
    g_rpc_log.Warning("Management clients wait: %1", platform::ErrorText(error));
  } catch (const std::exception& failure) {
    g_rpc_log.Warning("Management clients wait.", failure);
  }
}

}  // namespace

CListener::CListener(SListeningSocket socket, SListenerSettings settings)
    : socket_(std::move(socket)), settings_(std::move(settings)) {}

CListener::~CListener() {
  Stop();
}

void CListener::Start() {
  stop_ = NewEvent();
  finished_ = NewEvent();
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

void CListener::SignalStop() noexcept {
  if (stop_.IsOpen())
    ::eventfd_write(stop_.Get(), 1);
}

void CListener::Stop() noexcept {
  SignalStop();
  if (acceptor_.joinable())
    acceptor_.join();
}

void CListener::AcceptLoop() noexcept {
  const platform::signal_stack_t signalStack;
  platform::SetThreadName(AcceptorRole);
  for (;;) {
    const bool hasRoom = workers_.size() < settings_.maxConnections;
    std::array<pollfd, 3> entries{
        {{stop_.Get(), POLLIN, 0}, {finished_.Get(), POLLIN, 0}, {hasRoom ? socket_.descriptor.Get() : -1, POLLIN, 0}}};
    if (::poll(entries.data(), entries.size(), -1) < 0)
      continue;
    if (entries[0].revents != 0)
      break;
    if (entries[1].revents != 0)
      Reap();
    if (entries[2].revents != 0)
      AcceptOne();
  }
  for (worker_t& worker : workers_)
    worker.thread.join();
  workers_.clear();
}

void CListener::AcceptOne() noexcept {
  platform::descriptor_t peer(::accept4(socket_.descriptor.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (peer.IsOpen()) {
    isShort_ = false;
    Admit(std::move(peer));
    return;
  }
  // These are over with the peer that they are about.
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED || errno == EPROTO)
    return;
  if (!std::exchange(isShort_, true))
    TellShortage(platform::SocketErrorFromErrno(errno));
  PauseForShortage();
}

/// The peers wait in the queue until there is a descriptor again.
void CListener::PauseForShortage() {
  pollfd stop{stop_.Get(), POLLIN, 0};
  ::poll(&stop, 1, ShortageMilliseconds);
}

void CListener::Admit(platform::descriptor_t peer) noexcept {
  try {
    if (!socket_.isLocal)
      PrepareTcp(peer.Get());
    worker_t& worker = workers_.emplace_back();
    ++connectionCount_;
    try {
      worker.thread = std::thread([this, &worker, own = std::move(peer)]() mutable {
        ServeConnection(std::move(own));
        worker.done = true;
        ::eventfd_write(finished_.Get(), 1);
      });
    } catch (const std::exception&) {
      workers_.pop_back();
      --connectionCount_;
      throw;
    }
  } catch (const std::exception& failure) {
    g_rpc_log.Warning("A management client is turned away.", failure);
    PauseForShortage();
  }
}

void CListener::ServeConnection(platform::descriptor_t peer) noexcept {
  const platform::signal_stack_t signalStack;
  try {
    monitoring::thread_record_t record(ConnectionRole, 0);
    const monitoring::thread_registration_t registration(record);
    platform::SetThreadName(ConnectionRole);
    const int descriptor = peer.Get();
    SCaller caller = socket_.isLocal ? LocalCaller(descriptor) : RemoteCaller(descriptor);
    CConnection connection(std::move(peer), stop_.Get(), settings_.limits, settings_.association, std::move(caller));
    connection.Serve();
  } catch (const std::exception& failure) {
    g_rpc_log.Error("The connection of a management client failed.", failure);
  }
}

void CListener::Reap() {
  eventfd_t ignored = 0;
  ::eventfd_read(finished_.Get(), &ignored);
  for (auto worker = workers_.begin(); worker != workers_.end();) {
    if (!worker->done) {
      ++worker;
      continue;
    }
    worker->thread.join();
    worker = workers_.erase(worker);
    --connectionCount_;
  }
}

}  // namespace dcerpc
