// Brings lost mount agents back.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "foundation/events.h"
#include "foundation/thread.h"

class CRemoteFsMounter;

/// How the thread waits. Tests replace it.
struct SHealthCheckWaits {
  std::uint32_t periodMs = 30000;
  /// After a wait that failed.
  std::uint32_t retryMs = 30000;
  std::uint32_t stopLimitMs = 30000;
  /// True when the event was signalled, false when the time passed; throws when neither can be told.
  std::function<bool(synch::manual_event_t& stopEvent, std::uint32_t limitMs)> wait =
      [](synch::manual_event_t& stopEvent, std::uint32_t limitMs) { return stopEvent.Wait(limitMs); };
};

/// Every half minute, connects the mounts that have lost their agent, and opens their items anew. It asks nothing of a
/// mount that is well: an agent that died unseen is found by the first call that fails. One thread for all mounts; no
/// failure of a mount ends it or touches another mount. One owner makes it, stops it and destroys it.
class CRemoteFsHealthCheckThread {
 public:
  /// Starts the thread.
  explicit CRemoteFsHealthCheckThread(boost::shared_ptr<CRemoteFsMounter> mounter, const SHealthCheckWaits& waits = {});
  CRemoteFsHealthCheckThread(const CRemoteFsHealthCheckThread&) = delete;
  CRemoteFsHealthCheckThread& operator=(const CRemoteFsHealthCheckThread&) = delete;
  /// Stop.
  ~CRemoteFsHealthCheckThread();

  /// Lets a pass that runs come to its end, up to the limit; a thread that does not end by then is left behind. A
  /// second call does nothing.
  void Stop() noexcept;

 private:
  struct shared_t;

  static void ThreadProc(shared_t& shared);

  const std::uint32_t stopLimitMs_;
  boost::shared_ptr<shared_t> shared_;
  std::unique_ptr<synch::thread_t> thread_;
};
