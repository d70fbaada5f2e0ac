// The client threads of the synchronous server, from accept to end.
#pragma once

#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

#include "foundation/thread.h"
#include "transports/sync/client_session.h"

/// Runs each session on a thread of its own. Nobody waits for the threads while the server runs or stops: they end with
/// their connections, and the next one to end joins the one before, so that none is left behind. Outlives the server;
/// End comes before what the sessions use. Any thread.
class CClientThreads {
 public:
  CClientThreads() = default;
  CClientThreads(const CClientThreads&) = delete;
  CClientThreads& operator=(const CClientThreads&) = delete;
  /// End, without a limit.
  ~CClientThreads();

  /// A new session. Without a thread for it the connection is closed and the failure logged; after End it is closed.
  void Start(ClientThreadArgs args) noexcept;
  /// Sessions whose thread has not ended.
  std::size_t Count() const;
  /// Admits no more, ends those that run and joins their threads; a call that is being processed is processed first.
  /// False when the limit (milliseconds) passed before.
  bool End(std::uint32_t limitMs) noexcept;

 private:
  struct SClient {
    boost::shared_ptr<CClientSession> session;
    boost::shared_ptr<synch::thread_t> thread;
  };

  void StartLocked(ClientThreadArgs& args);
  void Finish(std::uint64_t id) noexcept;
  void EndSessions() noexcept;

  mutable std::mutex lock_;
  std::condition_variable changed_;
  // Guarded by lock_.
  std::map<std::uint64_t, SClient> clients_;
  std::uint64_t lastId_ = 0;
  bool ended_ = false;
  /// The thread that ended last: past its session, and perhaps not past its last line.
  boost::shared_ptr<synch::thread_t> lastFinished_;
};
