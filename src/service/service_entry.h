// The entry point of the process.
#pragma once

#include "foundation/command_line.h"

/// Chooses the mode and runs it to its end. The exit code: 0 after a normal run, 1 when the service cannot wait for its
/// stop, -1 after a fatal error or a failed verification.
int RunProcess(int argumentCount, const char* const* arguments) noexcept;
