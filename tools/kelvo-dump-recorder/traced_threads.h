// The threads of another process, held still.
#pragma once

#include "foundation/dump/minidump_writer.h"

/// Stops all threads of a process but the one that waits for this program, and takes their registers. They go on with
/// the destructor.
class CTracedThreads {
 public:
  /// Threads beyond this many are not recorded.
  static constexpr std::size_t MaxThreads = 8192;

  CTracedThreads(const crash::process_reader_t& process, crash::arena_t& arena) noexcept;
  CTracedThreads(const CTracedThreads&) = delete;
  CTracedThreads& operator=(const CTracedThreads&) = delete;
  ~CTracedThreads();

  /// Puts the crashed thread in, with the registers that it had. False: the threads cannot be listed.
  bool Collect(const crash::exception_info_t& exception) noexcept;

  const crash::dump_thread_t* Threads() const noexcept { return threads_; }
  std::size_t Count() const noexcept { return count_; }

 private:
  bool IsKnown(std::uint32_t id) const noexcept;
  std::size_t AttachNew(std::uint32_t crashed) noexcept;
  void TakeContext(crash::dump_thread_t& thread, bool& isStopped) noexcept;

  const crash::process_reader_t& process_;
  crash::dump_thread_t* const threads_;
  /// Whether the thread is held by this program, in the order of threads_.
  bool* const isSeized_;
  std::size_t count_ = 0;
};
