// The crash handler of the service.
#pragma once

/// Installs the handler that leaves a dump beside the log. After the log was opened, before other threads. Throws what
/// keeps the process from finding its place for dumps.
void InstallCrashHandler();

/// Makes dumps as the general options ask for it. After they were loaded. Never throws.
void ApplyCrashOptions() noexcept;
