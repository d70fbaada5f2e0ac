// Opening the log at the start of the process.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "foundation/command_line.h"
#include "foundation/log_file.h"

namespace logging {

/// Opens the process's log and writes the banner. The file is the value of "-log", or the file name in LogFolder(),
/// or standard output when there is neither; "-verbose" turns verbose lines on. Called once, before other threads.
/// Throws "Failed to initialize log [%1]." over the cause.
void InitLog(const std::string& fileName, const CCommandLine& commandLine);

/// Lines are dropped from now on, and the file is given up.
void CloseLog();

/// The path of the open file. Throws "Value of the log path is unavailable: log is not initialized".
std::string GetLogPath();

/// Drops lines until Resume().
void Suspend();
void Resume();

/// The folder of the process's logs, with a "/" at its end: LogDirectory of the registry, or Kelvo/Backup below the
/// common application data. Never throws; does not create it.
std::string LogFolder();

/// The path, and then the path with a number from 1 to 999 before its ".log", or at its end if it has none.
std::vector<std::string> LogCandidates(const std::string& path);

/// Opens the first file that no other process holds. Throws "All log files are locked.", for an empty list
/// "Log paths list is empty.", and what else stops it.
boost::shared_ptr<receiver::log_file_t> OpenFirstFree(const std::vector<std::string>& paths);

/// Version of the product, four numbers with dots.
std::string ModuleVersion();

}  // namespace logging
