// Between the tests and the library that crashes a service from inside.
#pragma once

namespace test {

/// SIGUSR2 with one of these as its value, sent to a thread, makes that thread crash in this way.
enum class injected_t : int {
  NullPointer,
  TruncatedMapping,
  DivisionByZero,
  BadInstruction,
  Abort,
  Exception,
  ExceptionOfNoClass,
  StackOverflow,
  /// Found out by the heap itself, which gives up in the middle of its work.
  DamagedHeap,
  /// The same, while the heap's lock is held.
  LockedHeap,
  /// The next line of the log crashes in the middle of being written, whatever thread writes it.
  LogLine,
  /// All descriptors are used up before.
  NoDescriptors,
  /// Another thread crashes in the same moment.
  TwoThreads,
  /// With a mask that lets no signal through but the crash.
  BlockedSignals
};

/// Variables of the service's environment.
/// The release of the kernel that the service is told.
inline constexpr const char* KernelVariable = "KELVO_TEST_KERNEL";
/// What telling the service manager of the stop does: "crash", "hang" or "throw".
inline constexpr const char* NotifyVariable = "KELVO_TEST_NOTIFY";
/// The file that cannot be opened.
inline constexpr const char* ClosedVariable = "KELVO_TEST_CLOSED";

/// Stands in the heap of a service that the library is loaded into, and nowhere else.
inline constexpr const char* HeapMarkHead = "kelvo-heap-mark-";
inline constexpr const char* HeapMarkTail = "7d41c9";

}  // namespace test
