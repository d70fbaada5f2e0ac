// Where calls on files are handed in.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "vfs/items/fs_invocation_queue.h"
#include "vfs/items/fs_proc.h"

class CCompletionEventsAllocator;
class CFsInvocationThreadPool;

/// Runs procedures on a pool of its own, in the order in which they came. Any thread. Who calls it holds a share of it
/// for the length of the call; the last share must not be dropped by a procedure.
class CFsProcInvoker {
 public:
  /// A count below 1 is taken as 1. Throws runtime_exc_t without an allocator.
  static boost::shared_ptr<CFsProcInvoker> Create(const std::string& name, std::int32_t threadCount,
                                                  boost::shared_ptr<CCompletionEventsAllocator> allocator,
                                                  const SFsInvocationLimits& limits = {});
  CFsProcInvoker(const CFsProcInvoker&) = delete;
  CFsProcInvoker& operator=(const CFsProcInvoker&) = delete;
  /// Stop.
  ~CFsProcInvoker();

  /// Queues the procedure and returns. Throws runtime_exc_t when the queue stays full for ten minutes.
  void Invoke(boost::shared_ptr<IFsProc> proc, boost::shared_ptr<IFsProcCompletionCallback> callback);
  /// Queues the procedure and waits for its end, on an event of the allocator; throws what it throws, of its own
  /// dynamic type. The procedure may outlive the call when the wait ran out of its 21 days.
  void InvokeAndWait(boost::shared_ptr<IFsProc> proc, boost::shared_ptr<CCompletionEventsAllocator> allocator);

  /// Lets what runs come to its end and cancels all else, now and later: "Procedure is cancelled.". Not on a thread of
  /// the pool. A second call does nothing.
  void Stop() noexcept;

  std::size_t ThreadCount() const noexcept;
  /// Procedures that are queued and not yet taken.
  std::size_t Waiting() const { return queue_.Waiting(); }

  /// The place of an idle invocation thread, for a caller that runs its procedure itself. Empty unless the procedure
  /// would have been the next one to run, and at once.
  class CLoan {
   public:
    explicit CLoan(CFsProcInvoker& invoker) noexcept : queue_(invoker.queue_.TryBorrow() ? &invoker.queue_ : nullptr) {}
    CLoan(const CLoan&) = delete;
    CLoan& operator=(const CLoan&) = delete;
    ~CLoan() {
      if (queue_ != nullptr)
        queue_->FinishLoan();
    }
    explicit operator bool() const noexcept { return queue_ != nullptr; }

   private:
    CFsInvocationQueue* const queue_;
  };

 private:
  CFsProcInvoker(std::unique_ptr<CFsInvocationThreadPool> pool, const SFsInvocationLimits& limits);

  const SFsInvocationLimits limits_;
  const std::unique_ptr<CFsInvocationThreadPool> pool_;
  CFsInvocationQueue& queue_;
};
