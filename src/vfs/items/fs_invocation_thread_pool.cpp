#include "vfs/items/fs_invocation_thread_pool.h"

#include <algorithm>
#include <boost/make_shared.hpp>

#include "foundation/log.h"

struct CFsInvocationThreadPool::shared_t {
  shared_t(std::string poolName, boost::shared_ptr<CFsInvocationQueue> poolQueue)
      : name(std::move(poolName)), queue(std::move(poolQueue)) {}

  const std::string name;
  const boost::shared_ptr<CFsInvocationQueue> queue;
  synch::manual_event_t stopEvent;
  std::atomic<std::uint32_t> running{0};
};

CFsInvocationThreadPool::CFsInvocationThreadPool(
    std::string name, std::uint32_t threadCount,
    boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator, const SFsInvocationLimits& limits)
    : name_(std::move(name)),
      limits_(limits),
      completionEventsAllocator_(std::move(completionEventsAllocator)),
      queue_(boost::make_shared<CFsInvocationQueue>(threadCount, limits)),
      shared_(boost::make_shared<shared_t>(name_, queue_)) {
  try {
    threads_.reserve(threadCount);
    for (std::uint32_t i = 0; i < threadCount; ++i) {
      shared_->running.fetch_add(1);
      threads_.push_back(std::make_unique<synch::thread_t>(exc::FormatText("FsInvocation %1 - %2", name_, i),
                                                           [shared = shared_] { ThreadProc(*shared); }));
    }
  } catch (...) {
    Stop();
    throw;
  }
}

CFsInvocationThreadPool::~CFsInvocationThreadPool() {
  Stop();
}

void CFsInvocationThreadPool::ThreadProc(shared_t& shared) noexcept {
  try {
    g_nfs_log.Info("Invocation thread started for '%1'", shared.name);
    while (CFsInvocation record = shared.queue->Pop(shared.stopEvent)) {
      record.Run();
      // The callback goes before the place is free: who waits for the place finds everything done.
      record = CFsInvocation();
      shared.queue->Finish();
    }
    try {
      // A caller that stands in for this thread comes to its end first, as this thread would.
      shared.queue->WaitForPlace();
      shared.queue->Break();
    } catch (const std::exception& failure) {
      g_nfs_log.Error("Failed to unlock invocation queue.", failure);
    }
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Invocation thread for '%1' has failed.", failure, shared.name);
  }
  // Nobody is left to run what waits.
  if (shared.running.fetch_sub(1) == 1)
    shared.queue->Break();
}

void CFsInvocationThreadPool::StopThread(synch::thread_t& thread) noexcept {
  try {
    if (thread.WaitFor(limits_.stopLimitMs))
      return;
    g_nfs_log.Warning("Invocation thread for '%1' didn't stop in 3 minutes. Waiting for stop.", name_);
    thread.WaitFor(limits_.longStopLimitMs);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to destroy invocation thread for '%1'.", failure, name_);
  }
}

// A caller that stands in for a thread is waited for as the thread is.
void CFsInvocationThreadPool::WaitForLoans() {
  if (queue_->WaitForLoans(limits_.stopLimitMs))
    return;
  g_nfs_log.Warning("Invocation thread for '%1' didn't stop in 3 minutes. Waiting for stop.", name_);
  queue_->WaitForLoans(limits_.longStopLimitMs);
}

void CFsInvocationThreadPool::Stop() noexcept {
  if (stopped_.exchange(true))
    return;
  try {
    queue_->CloseLoans();
    shared_->stopEvent.Set();
    for (const auto& thread : threads_)
      StopThread(*thread);
    WaitForLoans();
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to destroy invocation thread pool for '%1'.", failure, name_);
  }
}
