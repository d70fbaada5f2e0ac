// The other threads of this process, held still.
#pragma once

#include "foundation/crash/dump_gen.h"
#include "foundation/dump/minidump_writer.h"

namespace crash {

/// Holds all threads but the calling one in a signal handler, which leaves their registers; they go on with the
/// destructor. Once in the life of the process. The arena must outlive the process's threads.
class parked_threads_t {
 public:
  /// Threads beyond this many are not recorded.
  static constexpr std::size_t MaxThreads = 8192;

  explicit parked_threads_t(arena_t& arena) noexcept;
  parked_threads_t(const parked_threads_t&) = delete;
  parked_threads_t& operator=(const parked_threads_t&) = delete;
  ~parked_threads_t();

  /// Puts the crashed thread, which calls, in first. False when there is no memory for them.
  bool Collect(const exception_info_t& exception) noexcept;

  const dump_thread_t* Threads() const noexcept { return threads_; }
  std::size_t Count() const noexcept { return count_; }

 private:
  bool IsKnown(std::uint32_t id) const noexcept;
  std::size_t SignalNew(std::uint32_t crashed) noexcept;
  void WaitForAll() noexcept;

  dump_thread_t* const threads_;
  std::size_t count_ = 0;
};

}  // namespace crash
