// What a crashed process tells of its crash.
#pragma once

#include <cstdint>

#include "foundation/dump/minidump_format.h"

namespace crash {

/// Lies in the crashed process; another process reads it from there by its address.
struct exception_info_t {
  static constexpr std::uint64_t Magic = 0x31584346534e4b01;

  std::uint64_t magic = Magic;
  std::int32_t signal = 0;
  /// How it came about, as siginfo_t's si_code.
  std::int32_t code = 0;
  /// The address of the fault, or of the instruction when the signal knows none.
  std::uint64_t address = 0;
  std::uint32_t processId = 0;
  std::uint32_t threadId = 0;
  minidump::context_t context;
  /// A text in the crashed process that the dump is to hold as well: what its threads were doing.
  std::uint64_t notes = 0;
  std::uint64_t notesSize = 0;
};

}  // namespace crash
