#include "mount-agent-lib/server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <utility>
#include <vector>

#include "foundation/exc.h"
#include "mount-agent-lib/session.h"
#include "platform/process.h"

namespace mount_agent {
namespace {

namespace error = platform::error;

// For the service, which is root or of the agent's group. Whoever has the event can have all connections closed.
constexpr mode_t PipeMode = 0660;
constexpr mode_t EventMode = 0660;
constexpr int WaitingClients = 16;
constexpr int ShortageMilliseconds = 100;

/// The buffer of a large message is not kept for the small ones that follow.
constexpr std::size_t KeptBuffer = 2U << 20U;

template <typename Buffer>
void Shrink(Buffer& buffer) {
  if (buffer.capacity() > KeptBuffer)
    Buffer().swap(buffer);
}

platform::descriptor_t MakeSignal() {
  platform::descriptor_t signal(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!signal.IsOpen())
    throw exc::win_sys_exc_t("An event cannot be made.", platform::LastError());
  return signal;
}

}  // namespace

struct CAgentServer::SConnection {
  explicit SConnection(pipe_ptr_t opened) : pipe(std::move(opened)) { pipe->WaitInSocket(); }

  const pipe_ptr_t pipe;
  std::atomic<bool> ending{false};  ///< Set before the pipe is ended.
  std::atomic<bool> over{false};
  std::thread thread;

  void End() {
    ending.store(true);
    pipe->End();
  }
};

CAgentServer::CAgentServer(const std::string& baseName, IMountedContent& content, report_t report)
    : content_(content),
      report_([this, tell = std::move(report)](const std::string& text) {
        const std::lock_guard lock(*reportMutex_);
        tell(text);
      }),
      reportMutex_(std::make_unique<std::mutex>()),
      stop_(MakeSignal()) {
  Listen(baseName);
  thread_ = std::thread([this] { Run(); });
}

CAgentServer::~CAgentServer() {
  ::eventfd_write(stop_.Get(), 1);
  thread_.join();
}

void CAgentServer::Listen(const std::string& baseName) {
  const std::string name = baseName + "-0";
  // The event comes last: who finds it expects the pipe to be there.
  platform::error_t failure = platform::pipe_listener_t::Listen(name, PipeMode, WaitingClients, listener_);
  if (failure == error::PipeBusy)
    throw exc::runtime_exc_t("Another agent serves the pipe [%1].", baseName);
  if (failure != error::Success)
    throw exc::win_sys_exc_t(exc::FormatText("The pipe [%1] cannot be made.", baseName), failure);
  failure = platform::named_event_t::Create("Global\\VFS_on_" + name, EventMode, reset_);
  if (failure == error::AlreadyExists)
    throw exc::runtime_exc_t("Another program has the reset event of the pipe [%1].", baseName);
  if (failure != error::Success)
    throw exc::win_sys_exc_t(exc::FormatText("The reset event of the pipe [%1] cannot be made.", baseName), failure);
}

void CAgentServer::Run() noexcept {
  platform::SetThreadName("agent");
  for (;;) {
    std::array<pollfd, 3> entries{
        {{stop_.Get(), POLLIN, 0}, {reset_->Descriptor(), POLLIN, 0}, {listener_->Descriptor(), POLLIN, 0}}};
    if (::poll(entries.data(), entries.size(), -1) < 0)
      continue;
    if (entries[0].revents != 0)
      break;
    ResetIfAsked();
    Reap(false);
    if (entries[2].revents != 0 && !Accept())
      break;
  }
  Reap(true);
}

bool CAgentServer::Accept() {
  pipe_ptr_t pipe;
  try {
    const int stop = stop_.Get();
    // A client that gave up meanwhile leaves nothing to accept, and nothing to wait for.
    const platform::error_t failure =
        listener_->Accept(pipe, {platform::deadline_t::After(0), std::span<const int>(&stop, 1)});
    if (failure == error::OperationAborted)
      return false;
    if (failure == error::WaitTimeout)
      return true;
    if (failure == error::Success) {
      // The service sets the event before it connects, so it is seen at the latest here.
      ResetIfAsked();
      Start(std::move(pipe));
      return true;
    }
  } catch (const std::exception& failure) {
    report_(std::string("A connection cannot be served: ") + failure.what());
  }
  pollfd entry{stop_.Get(), POLLIN, 0};
  ::poll(&entry, 1, ShortageMilliseconds);
  return true;
}

void CAgentServer::Start(pipe_ptr_t pipe) {
  if (connections_.size() >= MaxConnections) {
    report_("A connection was refused: there are " + std::to_string(MaxConnections) + " already.");
    return;
  }
  SConnection& connection = connections_.emplace_back(std::move(pipe));
  try {
    connection.thread = std::thread([this, &connection] { Serve(connection); });
  } catch (...) {
    connections_.pop_back();
    throw;
  }
}

void CAgentServer::ResetIfAsked() {
  if (!reset_->IsSet())
    return;
  reset_->Reset();
  Reap(true);
}

void CAgentServer::Reap(bool all) {
  if (all) {
    for (SConnection& connection : connections_)
      connection.End();
  }
  for (auto connection = connections_.begin(); connection != connections_.end();) {
    if (all || connection->over.load()) {
      connection->thread.join();
      connection = connections_.erase(connection);
    } else {
      ++connection;
    }
  }
}

void CAgentServer::Serve(SConnection& connection) noexcept {
  platform::SetThreadName("agent pipe");
  // Sending from files knows no other way to be spared it.
  sigset_t broken;
  sigemptyset(&broken);
  sigaddset(&broken, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &broken, nullptr);
  try {
    CSession session(content_);
    std::vector<std::uint8_t> request;
    bytes_t reply;
    for (;;) {
      const platform::error_t failure = connection.pipe->ReadMessage(request, MaxRequestLength);
      if (failure == error::MoreData)
        report_("A connection was closed: its request is too long.");
      if (failure != error::Success)
        break;
      // A request that had come before the end can still be read; a connection that has to end does nothing more.
      if (connection.ending.load())
        break;
      if (!session.Answer(request.data(), request.size(), reply)) {
        report_("A connection was closed: its request is malformed, or the file cannot be read.");
        break;
      }
      const platform::error_t sent = session.FileParts().empty() ? connection.pipe->Write(reply)
                                                                 : connection.pipe->WriteFiles(session.FileParts());
      if (sent == error::IoDevice)
        report_("A connection was closed: a file has become shorter.");
      if (sent != error::Success)
        break;
      Shrink(request);
      Shrink(reply);
    }
  } catch (const std::exception& failure) {
    report_(std::string("A connection was closed: ") + failure.what());
  }
  // The peer learns of it now, not when the server looks next.
  connection.pipe->End();
  connection.over.store(true);
}

}  // namespace mount_agent
