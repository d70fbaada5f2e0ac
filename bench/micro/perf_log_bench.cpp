// What the performance log costs the calls that it traces, switched off and on.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "foundation/perf_logger.h"
#include "programs/busy_scope.h"
#include "programs/io_trace.h"

namespace {

/// What one READ adds to itself for the log.
void TraceRead(const nfs_fh3& file, std::uint64_t offset) {
  const CBusyScope busy;
  io_trace::Begin(perf::event::ReadBegin, file, offset, 65536);
  benchmark::ClobberMemory();
  io_trace::End(perf::event::ReadEnd, file, offset, true);
}

void TraceOff(benchmark::State& state) {
  const nfs_fh3 file = HandleFromFid(0x0123456789ABCDEFULL);
  std::uint64_t offset = 0;
  for (auto _ : state)
    TraceRead(file, ++offset);
}
BENCHMARK(TraceOff);

void TraceOn(benchmark::State& state) {
  const nfs_fh3 file = HandleFromFid(0x0123456789ABCDEFULL);
  // The flush is the system's cost; the rest is ours.
  perf::StartLog("/dev/null", 131072);
  std::uint64_t offset = 0;
  for (auto _ : state)
    TraceRead(file, ++offset);
  perf::StopLog();
}
BENCHMARK(TraceOn);

}  // namespace
