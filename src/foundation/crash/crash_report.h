// The text report of a crash.
#pragma once

#include "foundation/crash/dump_gen.h"
#include "foundation/dump/arena.h"

namespace crash {

/// Writes the report to an open file: what happened, the registers, the frames of the crashed thread with symbols and
/// source lines, the modules, and what each thread was doing. The version is that of the program. False after a failure
/// of writing, which is added.
bool WriteReport(int file, const exception_pointers_t& crash, const char* version, arena_t& arena,
                 failure_t& failure) noexcept;

}  // namespace crash
