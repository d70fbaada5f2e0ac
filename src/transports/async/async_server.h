// The asynchronous protocol server: MOUNT, NFS and the portmapper over TCP, the portmapper over UDP.
#pragma once

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <cstdint>
#include <functional>

#include "foundation/nfs_crash_sink.h"
#include "rpc/rpc_message.h"

class IAddressChecker;
namespace win {
class win_thread_t;
}

/// What the server serves and with whom. The three programs have their file system bound, and keep it alive.
struct SAsyncServerParams {
  rpc_handler_t mountProgram;
  rpc_handler_t nfsProgram;
  rpc_handler_t portmapProgram;
  /// Of the NFS program; may be empty.
  rpc_foresight_t nfsForesight;
  /// 0 takes a port from the system. What was really bound stands in ServicePorts().
  std::uint16_t mountPort = 0;
  std::uint16_t nfsPort = 0;
  std::uint16_t portmapPort = 111;
  /// Null admits everyone.
  boost::shared_ptr<IAddressChecker> addressChecker;
  /// Null tells nobody.
  boost::shared_ptr<INFSCrashSink> crashSink;
  /// First step of the set-up, on the server's thread: prepares the table of the portmapper. What it throws fails the
  /// start.
  std::function<void()> prepareRegistration;
  /// Body of the thread that registers the ports with the portmapper of this machine, whoever that is. Runs beside the
  /// server and ends by itself; the server joins it at stop. Must not throw. Empty starts no thread.
  std::function<void()> registrationProc;
  /// Called at stop, before the registration's thread is joined: ends what it waits for. Must not throw. May be empty.
  std::function<void()> abortRegistration;
  /// Pauses of the set-up (a port that is taken) and of accepting; empty waits in real time. Tests replace it.
  std::function<void(std::chrono::milliseconds)> pause;
};

/// Owns the thread "Async server", the three queues and the listeners. Created and destroyed by one thread.
class CAsyncServer {
 public:
  /// Returns when the listeners accept. Throws what failed the set-up, as the server's thread met it; a port that
  /// stays taken costs up to a minute.
  explicit CAsyncServer(SAsyncServerParams params);
  CAsyncServer(const CAsyncServer&) = delete;
  CAsyncServer& operator=(const CAsyncServer&) = delete;
  /// Stops.
  ~CAsyncServer();

  /// Refuses new work, runs out the requests that were received, and ends the threads; up to a minute. A failure is
  /// logged. The second call does nothing.
  void Stop() noexcept;

 private:
  class CContext;

  void WaitForInit();

  /// Shared with the thread, which may outlive a stop that took too long.
  boost::shared_ptr<CContext> context_;
  boost::shared_ptr<win::win_thread_t> thread_;
};
