// Whether a management console fits this program.
#pragma once

#include <string>

/// A console of the module's version or a later one is compatible. Versions are four decimal numbers with points
/// between them; throws runtime_exc_t for anything else.
bool IsConsoleCompatible(const std::string& consoleVersion, const std::string& moduleVersion);
