// The performance log's place in the start and the stop of the service.
#pragma once

class CRegOptions;

/// Starts the process's performance log and says so, when the options name a file for it. Its buffer has the size that
/// the general options tell. Throws when memory runs out.
void StartPerfLog(const CRegOptions& options);

/// Writes what counters hold, and ends the log; nothing when none runs.
void StopPerfLog() noexcept;
