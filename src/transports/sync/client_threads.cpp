#include "transports/sync/client_threads.h"

#include <boost/make_shared.hpp>
#include <chrono>
#include <utility>
#include <vector>

#include "foundation/log.h"

CClientThreads::~CClientThreads() {
  while (!End(synch::LongWaitMs)) {
  }
}

void CClientThreads::Start(ClientThreadArgs args) noexcept {
  try {
    const std::lock_guard guard(lock_);
    if (!ended_)
      StartLocked(args);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to create thread.", failure);
  }
}

void CClientThreads::StartLocked(ClientThreadArgs& args) {
  const std::uint64_t id = ++lastId_;
  const auto place = clients_.emplace(id, SClient{boost::make_shared<CClientSession>(std::move(args)), nullptr}).first;
  SClient& client = place->second;
  try {
    // Without a share of the session, which goes before its thread does.
    client.thread = boost::make_shared<synch::thread_t>(
        "TCP client", synch::thread_exec_proc_t([this, id, session = client.session.get()] {
          session->Run();
          Finish(id);
        }));
  } catch (const std::exception&) {
    clients_.erase(place);
    throw;
  }
}

/// The last step of a client thread.
void CClientThreads::Finish(std::uint64_t id) noexcept {
  boost::shared_ptr<CClientSession> session;
  {
    const std::lock_guard guard(lock_);
    session = std::move(clients_.at(id).session);
  }
  // Closes the socket, and lets go of the file system.
  session.reset();
  boost::shared_ptr<synch::thread_t> previous;
  {
    const std::lock_guard guard(lock_);
    const auto place = clients_.find(id);
    previous = std::exchange(lastFinished_, std::move(place->second.thread));
    clients_.erase(place);
    changed_.notify_all();
  }
  try {
    if (previous != nullptr)
      previous->WaitFor(synch::NoLimit);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Client thread error.", failure);
  }
}

std::size_t CClientThreads::Count() const {
  const std::lock_guard guard(lock_);
  return clients_.size();
}

void CClientThreads::EndSessions() noexcept {
  const std::lock_guard guard(lock_);
  ended_ = true;
  for (const auto& [id, client] : clients_) {
    if (client.session != nullptr)
      client.session->End();
  }
}

bool CClientThreads::End(std::uint32_t limitMs) noexcept {
  try {
    EndSessions();
    boost::shared_ptr<synch::thread_t> last;
    {
      std::unique_lock guard(lock_);
      if (!changed_.wait_for(guard, std::chrono::milliseconds(limitMs), [this] { return clients_.empty(); }))
        return false;
      last = std::move(lastFinished_);
    }
    if (last != nullptr)
      last->WaitFor(synch::NoLimit);
    return true;
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Client thread error.", failure);
    return false;
  }
}
