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

/// How many procedures may wait, and how long each wait may last, in milliseconds. Tests shorten them.
struct SFsInvocationLimits {
  std::int32_t slots = 1000;
  /// Of a caller, for a slot.
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
  explicit CFsInvocationQueue(std::uint32_t runners, const SFsInvocationLimits& limits = {});
  CFsInvocationQueue(const CFsInvocationQueue&) = delete;
  CFsInvocationQueue& operator=(const CFsInvocationQueue&) = delete;

  /// Waits for a free slot and appends. Throws runtime_exc_t "Timed out to wait for invocation queue.". A record that
  /// comes after Break is cancelled at once.
  void Push(CFsInvocation record);
  /// The next record, and with it a runner's place, which the caller gives back with Finish. Empty when the stop event
  /// is set, which goes before everything else. Throws runtime_exc_t "CFsInvocationQueue::Pop(): Queue has been
  /// broken".
  CFsInvocation Pop(synch::manual_event_t& stopEvent);
  /// Gives the place of a record from Pop back.
  void Finish() noexcept;
  /// True when nothing waits, a place is free and loans are open: the place is the caller's until FinishLoan. Waits for
  /// nothing, takes no lock.
  bool TryBorrow() noexcept;
  void FinishLoan() noexcept;

  /// No more loans.
  void CloseLoans() noexcept;
  /// After CloseLoans: waits, without a limit, until a runner's place is free.
  void WaitForPlace() noexcept;
  /// After CloseLoans: waits until all loans are back; false when the limit (milliseconds) passed.
  bool WaitForLoans(std::uint32_t limitMs) noexcept;
  /// Cancels what is queued, in order, and all that comes later.
  void Break() noexcept;

  std::size_t Waiting() const;

 private:
  bool TryPopRecord(CFsInvocation& record);
  bool TryPopBroken(CFsInvocation& record) noexcept;
  void TellThreads();
  void GiveBack(std::uint64_t places) noexcept;

  const std::uint32_t runners_;
  const std::uint32_t pushLimitMs_;
  /// Records that wait, places in use, loans among these, and two flags; see the .cpp. The number of waiting records
  /// changes under lock_ alone; a loan is taken by one exchange of the word.
  std::atomic<std::uint64_t> state_{0};
  /// Tells the threads to look: whenever records wait and a place is free, there is a count here or a thread that is
  /// about to look anyway.
  synch::CUnnamedSemaphore items_;
  synch::CUnnamedSemaphore freeSlots_;
  synch::manual_event_t broken_;
  /// Both are set once loans are closed: a place is free, and no loan is out.
  synch::manual_event_t placeFree_;
  synch::manual_event_t noLoans_;

  mutable std::mutex lock_;
  /// Guarded by lock_.
  std::deque<CFsInvocation> records_;
};
