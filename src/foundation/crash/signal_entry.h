// How a crash reaches its handler.
#pragma once

#include "foundation/crash/crash.h"

namespace crash {

/// True when this build leaves the signals to its sanitizers.
bool AreSignalsOfSanitizers() noexcept;

/// As Install, without what the dumping handler needs.
void InstallSignals(crash_handler_t& handler);

}  // namespace crash
