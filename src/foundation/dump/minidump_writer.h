// A minidump of a process.
#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/dump/exception_info.h"
#include "foundation/dump/process_reader.h"

namespace crash {

/// A thread whose registers are known.
struct dump_thread_t {
  std::uint32_t id = 0;
  /// False: nothing is known of where it is.
  bool hasContext = false;
  minidump::context_t context;
};

struct dump_content_t {
  /// minidump::type.
  std::uint64_t type = minidump::type::Normal;
  exception_info_t exception;
  /// The crashed thread is one of them.
  const dump_thread_t* threads = nullptr;
  std::size_t threadCount = 0;
};

/// Writes the dump to an open, empty file: system, modules, threads with their registers and stacks, the exception,
/// notes, what /proc tells, and as much memory as the type asks for. The process should not run meanwhile. False after
/// a failure of writing, which is added. No heap, no lock.
bool WriteMinidump(int file, const process_reader_t& process, const dump_content_t& content, arena_t& arena,
                   failure_t& failure) noexcept;

}  // namespace crash
