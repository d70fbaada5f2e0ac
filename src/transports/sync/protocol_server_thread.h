// The synchronous protocol server: MOUNT, NFS and the portmapper over TCP and UDP, a session for each connection.
#pragma once

#include <boost/shared_ptr.hpp>

#include "foundation/term_mediator.h"
#include "foundation/thread.h"
#include "transports/sync/protocol_server.h"

/// Owns the thread "Protocol server". A set-up that fails is told in the log alone: whoever made the server goes on
/// without it. Created and destroyed by one thread.
class CProtocolServerThread {
 public:
  /// Starts the thread and returns at once. Throws when there is no thread.
  explicit CProtocolServerThread(SProtocolServerParams params);
  CProtocolServerThread(const CProtocolServerThread&) = delete;
  CProtocolServerThread& operator=(const CProtocolServerThread&) = delete;
  /// Stops the dispatcher and joins it; connections are not told and run on in CClientThreads.
  ~CProtocolServerThread();

 private:
  void ThreadProc() noexcept;

  const SProtocolServerParams params_;
  boost::shared_ptr<synch::term_mediator_t> terminate_;
  boost::shared_ptr<synch::thread_t> thread_;
};
