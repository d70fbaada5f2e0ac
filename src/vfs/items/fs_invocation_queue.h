// The queue between the callers of files and the threads that run their calls.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>

#include "foundation/events.h"
#include "foundation/unnamed_semaphore.h"
#include "vfs/items/fs_proc.h"

/// A procedure and who is told of its end.
class CFsInvocation {
 public:
  CFsInvocation() = default;
  CFsInvocation(boost::shared_ptr<IFsProc> proc, boost::shared_ptr<IFsProcCompletionCallback> callback)
      : proc_(std::move(proc)), callback_(std::move(callback)) {}

  explicit operator bool() const noexcept { return proc_ != nullptr; }
  /// Runs the procedure and tells the callback.
  void Run() noexcept;
  /// Tells the callback that the procedure is cancelled.
  void Cancel() noexcept;

 private:
  void Fail(const std::exception& failure) noexcept;

  boost::shared_ptr<IFsProc> proc_;
  boost::shared_ptr<IFsProcCompletionCallback> callback_;
};

/// How many procedures may wait, and how long a caller waits for its place.
struct SFsInvocationLimits {
  std::int32_t slots = 1000;
  std::uint32_t pushLimitMs = 600000;
  /// How long the end of a pool waits for a thread before it says so, and after.
  std::uint32_t stopLimitMs = 180000;
  std::uint32_t longStopLimitMs = synch::LongWaitMs;
  /// How long a synchronous call waits for its end.
  std::uint32_t callLimitMs = synch::LongWaitMs;
};

/// Procedures in the order in which they came. At most `runners` of them run at any moment: each record that Pop
/// returns and each loan counts as one until it is finished. Any thread.
///
/// A caller whose procedure would be taken at once, as nothing waits and a runner is free, may borrow the runner's
/// place (TryBorrow) and run the procedure itself: it saves two hand-overs between threads, and nobody can tell the
/// difference by order or by overlap.
class CFsInvocationQueue {
 public:
  CFsInvocationQueue(std::uint32_t runners, const SFsInvocationLimits& limits);
  CFsInvocationQueue(const CFsInvocationQueue&) = delete;
  CFsInvocationQueue& operator=(const CFsInvocationQueue&) = delete;

  /// Waits for a free slot and appends. Throws runtime_exc_t "Timed out to wait for invocation queue.". A record that
  /// comes after Break is cancelled at once.
  void Push(CFsInvocation record);
  /// The next record, and with it a runner's place, which the caller gives back with Finish. Empty when the stop event
  /// is set, which goes before everything else. Throws runtime_exc_t "CFsInvocationQueue::Pop(): Queue has been
  /// broken".
  CFsInvocation Pop(synch::manual_event_t& stopEvent);
  /// True when nothing waits, a place is free and the queue is open: the place is the caller's until Finish. Waits for
  /// nothing, takes no lock.
  bool TryBorrow() noexcept;
  /// Gives a runner's place back.
  void Finish() noexcept;
  /// No more loans. Returns when those that are out are back, or when the limit (milliseconds) passed: false then.
  bool EndLoans(std::uint32_t limitMs);
  /// Cancels what is queued, in order, and all that comes later.
  void Break();

  std::size_t Waiting() const;

 private:
  bool TryPopRecord(CFsInvocation& record);

  const SFsInvocationLimits limits_;
  const std::uint32_t runners_;
  /// Records that wait (low half), places in use (next 16 bits), loans closed, queue broken. Waiting grows and shrinks
  /// under lock_ alone; a loan is taken by one exchange of the word.
  std::atomic<std::uint64_t> state_{0};
  /// Tells the threads to look: whenever records wait and a place is free, there is a count here or a thread that is
  /// about to look anyway.
  synch::CUnnamedSemaphore items_;
  synch::CUnnamedSemaphore freeSlots_;
  synch::manual_event_t broken_;
  /// Set when no place is in use after the end of loans.
  synch::manual_event_t idle_;

  mutable std::mutex lock_;
  /// Guarded by lock_.
  std::deque<CFsInvocation> records_;
};
