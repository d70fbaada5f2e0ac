#include "vfs/items/fs_invocation_queue.h"

#include <algorithm>
#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"

namespace {

constexpr std::int32_t MaxCount = 1000000000;

// The word: 24 bits of waiting records, 16 of places in use, 16 of loans among these, flags.
constexpr std::uint64_t OneWaiting = 1;
constexpr std::uint64_t OneInUse = std::uint64_t{1} << 24;
constexpr std::uint64_t OneLoan = std::uint64_t{1} << 40;
constexpr std::uint64_t LoansClosed = std::uint64_t{1} << 56;
constexpr std::uint64_t Broken = std::uint64_t{1} << 57;
constexpr std::uint64_t WaitingMask = OneInUse - 1;

constexpr std::uint32_t MaxRunners = 0xFFFF;

constexpr std::uint64_t InUse(std::uint64_t state) noexcept {
  return (state / OneInUse) & 0xFFFF;
}

constexpr std::uint64_t Loans(std::uint64_t state) noexcept {
  return (state / OneLoan) & 0xFFFF;
}

}  // namespace

void CFsInvocation::Run() noexcept {
  try {
    try {
      proc_->Execute();
      callback_->OnCompleted();
    } catch (const std::exception& failure) {
      Fail(failure);
    } catch (...) {
      Fail(exc::runtime_exc_t("Unknown exception."));
    }
  } catch (const std::exception& failure) {
    // Making the description failed.
    Fail(failure);
  }
}

void CFsInvocation::Cancel() noexcept {
  try {
    Fail(exc::runtime_exc_t("Procedure is cancelled."));
  } catch (const std::exception& failure) {
    Fail(failure);
  }
}

void CFsInvocation::Fail(const std::exception& failure) noexcept {
  static constexpr std::string_view NotTold =
      "Failed to call finalization procedure for the failure of asynchronous fs procedure.";
  static constexpr std::string_view Original = "Original failure of the fs procedure.";
  try {
    callback_->OnFailed(failure);
  } catch (const std::exception& second) {
    g_nfs_log.Error(NotTold, second);
    g_nfs_log.Error(Original, failure);
  } catch (...) {
    g_nfs_log.Error(NotTold);
    g_nfs_log.Error(Original, failure);
  }
}

CFsInvocationQueue::CFsInvocationQueue(std::uint32_t runners, const SFsInvocationLimits& limits)
    : runners_(std::clamp<std::uint32_t>(runners, 1, MaxRunners)),
      pushLimitMs_(limits.pushLimitMs),
      items_(0, MaxCount),
      freeSlots_(limits.slots, MaxCount) {}

void CFsInvocationQueue::Push(CFsInvocation record) {
  if (!freeSlots_.Wait(pushLimitMs_))
    throw exc::runtime_exc_t("Timed out to wait for invocation queue.");
  bool broken = false;
  std::uint64_t before = 0;
  try {
    const std::lock_guard<std::mutex> guard(lock_);
    broken = (state_.load(std::memory_order_seq_cst) & Broken) != 0;
    if (!broken) {
      records_.push_back(std::move(record));
      before = state_.fetch_add(OneWaiting, std::memory_order_seq_cst);
    }
  } catch (...) {
    freeSlots_.Release();
    throw;
  }
  if (broken) {
    freeSlots_.Release();
    record.Cancel();  // NOLINT(bugprone-use-after-move): a broken queue has not taken it.
  } else if (InUse(before) < runners_) {
    TellThreads();
  }
}

// A count for each thread is enough: whoever takes one looks at the word after that.
void CFsInvocationQueue::TellThreads() {
  if (items_.Count() < static_cast<std::int32_t>(runners_))
    items_.Release();
}

bool CFsInvocationQueue::TryPopRecord(CFsInvocation& record) {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    // While records wait no loan begins: between here and the change the word can only lose places in use.
    const std::uint64_t state = state_.load(std::memory_order_seq_cst);
    if ((state & WaitingMask) == 0 || (state & Broken) != 0 || InUse(state) >= runners_)
      return false;
    state_.fetch_add(OneInUse - OneWaiting, std::memory_order_seq_cst);
    record = std::move(records_.front());
    records_.pop_front();
  }
  freeSlots_.Release();
  return true;
}

CFsInvocation CFsInvocationQueue::Pop(synch::manual_event_t& stopEvent) {
  CFsInvocation record;
  for (;;) {
    if (stopEvent.IsSet())
      return {};
    if (broken_.IsSet())
      throw exc::runtime_exc_t("CFsInvocationQueue::Pop(): Queue has been broken");
    if (TryPopRecord(record))
      return record;
    if (!synch::waitable_t::WaitAny({&stopEvent, &broken_, &items_}))
      throw exc::runtime_exc_t("CFsInvocationQueue::Pop(): Timed out");
  }
}

void CFsInvocationQueue::GiveBack(std::uint64_t places) noexcept {
  const std::uint64_t before = state_.fetch_sub(places, std::memory_order_seq_cst);
  if ((before & (WaitingMask | LoansClosed)) == 0)
    return;
  if ((before & WaitingMask) != 0)
    TellThreads();
  if ((before & LoansClosed) != 0) {
    placeFree_.Set();
    if (Loans(before - places) == 0)
      noLoans_.Set();
  }
}

void CFsInvocationQueue::Finish() noexcept {
  GiveBack(OneInUse);
}

bool CFsInvocationQueue::TryBorrow() noexcept {
  std::uint64_t state = state_.load(std::memory_order_relaxed);
  do {
    if ((state & (WaitingMask | LoansClosed | Broken)) != 0 || InUse(state) >= runners_)
      return false;
  } while (!state_.compare_exchange_weak(state, state + OneInUse + OneLoan, std::memory_order_seq_cst,
                                         std::memory_order_relaxed));
  return true;
}

void CFsInvocationQueue::FinishLoan() noexcept {
  GiveBack(OneInUse + OneLoan);
}

void CFsInvocationQueue::CloseLoans() noexcept {
  const std::uint64_t before = state_.fetch_or(LoansClosed, std::memory_order_seq_cst);
  if (InUse(before) < runners_)
    placeFree_.Set();
  if (Loans(before) == 0)
    noLoans_.Set();
}

void CFsInvocationQueue::WaitForPlace() noexcept {
  placeFree_.Wait();
}

bool CFsInvocationQueue::WaitForLoans(std::uint32_t limitMs) noexcept {
  return noLoans_.Wait(limitMs);
}

void CFsInvocationQueue::Break() noexcept {
  {
    const std::lock_guard<std::mutex> guard(lock_);
    state_.fetch_or(Broken, std::memory_order_seq_cst);
  }
  broken_.Set();
  // Without the lock: a callback may come back here.
  for (CFsInvocation record; TryPopBroken(record); record = CFsInvocation()) {
    record.Cancel();
    freeSlots_.Release();
  }
}

bool CFsInvocationQueue::TryPopBroken(CFsInvocation& record) noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  if (records_.empty())
    return false;
  record = std::move(records_.front());
  records_.pop_front();
  state_.fetch_sub(OneWaiting, std::memory_order_seq_cst);
  return true;
}

std::size_t CFsInvocationQueue::Waiting() const {
  return static_cast<std::size_t>(state_.load(std::memory_order_seq_cst) & WaitingMask);
}
