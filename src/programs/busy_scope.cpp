#include "programs/busy_scope.h"

#include "foundation/time_ratio_counter.h"
#include "platform/futex.h"

namespace {

constexpr std::int64_t PeriodNs = 1000000000;

/// The calling thread's; its first period begins with the first call.
workload::CTimeRatioCounter& Counter() noexcept {
  thread_local workload::CTimeRatioCounter counter(platform::MonotonicNanoseconds());
  return counter;
}

}  // namespace

void CBusyScope::Begin() noexcept {
  Counter().Begin(platform::MonotonicNanoseconds());
}

void CBusyScope::End() noexcept {
  workload::CTimeRatioCounter& counter = Counter();
  const std::int64_t now = platform::MonotonicNanoseconds();
  counter.End(now);
  if (counter.Period(now) < PeriodNs)
    return;
  perf::WriteRecord(perf::event::ThreadBusy,
                    perf::thread_busy_t{static_cast<std::uint64_t>(counter.Period(now)), counter.Permille(now)});
  counter.Restart(now);
}
