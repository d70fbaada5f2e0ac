// The threads that run queued calls on files.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/events.h"
#include "foundation/thread.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_invocation_queue.h"

/// Threads "FsInvocation NAME - INDEX" over one queue. One owner makes, stops and destroys it.
class CFsInvocationThreadPool {
 public:
  CFsInvocationThreadPool(std::string name, std::uint32_t threadCount,
                          boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator,
                          const SFsInvocationLimits& limits);
  CFsInvocationThreadPool(const CFsInvocationThreadPool&) = delete;
  CFsInvocationThreadPool& operator=(const CFsInvocationThreadPool&) = delete;
  /// Stop.
  ~CFsInvocationThreadPool();

  /// Lets what runs come to its end, cancels what waits, and joins the threads. Once; not on a thread of the pool.
  void Stop() noexcept;

  CFsInvocationQueue& Queue() noexcept { return *queue_; }
  std::size_t ThreadCount() const noexcept { return threads_.size(); }

 private:
  /// What the threads share; a thread that outlives a failed stop keeps it.
  struct shared_t;

  static void ThreadProc(shared_t& shared) noexcept;
  void StopThread(synch::thread_t& thread) noexcept;
  void WaitForLoans();

  const std::string name_;
  const SFsInvocationLimits limits_;
  /// Kept for the callers whose events must not go before the threads do.
  const boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator_;
  const boost::shared_ptr<CFsInvocationQueue> queue_;
  const boost::shared_ptr<shared_t> shared_;
  std::vector<std::unique_ptr<synch::thread_t>> threads_;
  std::atomic<bool> stopped_{false};
};
