#include "foundation/log_setup.h"

#include <sys/utsname.h>

#include <filesystem>
#include <fstream>

#include "foundation/create_folders.h"
#include "foundation/debug_string_log.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/log_rotation.h"
#include "foundation/win_log_file.h"
#include "platform/process.h"
#include "platform/text.h"

namespace logging {

namespace {

constexpr std::size_t RulerLength = 77;
constexpr int CandidateCount = 1000;
constexpr std::string_view LogExtension = ".log";

bool EndsWithLogExtension(const std::string& path) {
  return path.size() >= LogExtension.size() &&
         platform::EqualIgnoringCase(std::string_view(path).substr(path.size() - LogExtension.size()), LogExtension);
}

boost::shared_ptr<receiver::log_file_t> OpenFile(const std::string& fileName, const CCommandLine& commandLine) {
  std::string path = fileName;
  try {
    if (const auto given = commandLine.ValueOf("-log")) {
      path = *given;
    } else {
      const std::string folder = LogFolder();
      path = folder + fileName;
      io::CreateFolders(folder);
    }
    return OpenFirstFree(LogCandidates(path));
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to initialize log [%1].", failure, path);
  }
}

boost::shared_ptr<receiver::log_file_t> OpenStandardOutput() {
  try {
    return boost::shared_ptr<receiver::log_file_t>(new receiver::stdout_log_file_t);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Error: Failed to initialize stdout log.", failure);
  }
}

void SetMirror() {
  try {
    if (!receiver::ReadUdpCopySettings().enabled)
      return;
    TheLog().SetMirror(boost::shared_ptr<receiver::log_file_t>(new receiver::COutputDebugStringLog));
  } catch (const std::exception&) {
    // Without the service's key nobody has asked for a copy.
  }
}

std::string SystemVersion() {
  std::string name = "Linux";
  std::ifstream release("/etc/os-release");
  constexpr std::string_view Key = "PRETTY_NAME=";
  for (std::string line; std::getline(release, line);) {
    if (!line.starts_with(Key))
      continue;
    name = line.substr(Key.size());
    std::erase(name, '"');
  }
  utsname kernel{};
  if (::uname(&kernel) == 0)
    name += exc::FormatText(", %1 %2 %3", kernel.sysname, kernel.release, kernel.machine);
  return name;
}

void WriteBanner() {
  g_log.Info("");
  g_log.Info(std::string(RulerLength, '='));
  g_log.Info("{");
  {
    const indent_t indent;
    // The service is one executable, so that the module that logs is the executable itself.
    g_log.Info("Path to the module: %1", platform::ExecutablePath());
    g_log.Info("Module version: %1", ModuleVersion());
    g_log.Info("Comments: %1", KELVO_BUILD_COMMENTS);
    g_log.Info("OS version: %1", SystemVersion());
    g_log.Info("Process Id: %1", platform::ProcessId());
  }
  g_log.Info("}");
}

}  // namespace

void InitLog(const std::string& fileName, const CCommandLine& commandLine) {
  log_t& log = TheLog();
  log.SetVerbose(commandLine.Has("-verbose"));
  if (fileName.empty() && !commandLine.ValueOf("-log")) {
    log.SetReceiver(OpenStandardOutput());
  } else {
    log.SetReceiver(OpenFile(fileName, commandLine), ReadRotationSettings());
  }
  SetMirror();
  WriteBanner();
}

void CloseLog() {
  TheLog().SetMirror(nullptr);
  TheLog().SetReceiver(nullptr);
}

std::string GetLogPath() {
  const boost::shared_ptr<receiver::log_file_t> receiver = TheLog().Receiver();
  if (receiver == nullptr) {
    throw exc::runtime_exc_t("Value of the log path is unavailable: log is not initialized");
  }
  return receiver->GetPath();
}

void Suspend() {
  TheLog().SetSuspended(true);
}

void Resume() {
  TheLog().SetSuspended(false);
}

std::vector<std::string> LogCandidates(const std::string& path) {
  std::string stem = path;
  std::string extension;
  if (EndsWithLogExtension(path)) {
    extension = path.substr(path.size() - LogExtension.size());
    stem.resize(path.size() - LogExtension.size());
  }
  std::vector<std::string> candidates{path};
  candidates.reserve(CandidateCount);
  for (int number = 1; number < CandidateCount; ++number) {
    candidates.push_back(stem + "." + std::to_string(number) + extension);
  }
  return candidates;
}

boost::shared_ptr<receiver::log_file_t> OpenFirstFree(const std::vector<std::string>& paths) {
  if (paths.empty())
    throw exc::runtime_exc_t("Log paths list is empty.");
  for (const std::string& path : paths) {
    try {
      return boost::shared_ptr<receiver::log_file_t>(new win::win_log_file_t(path));
    } catch (const exc::file_locked_exc_t&) {
      // Another process logs there; the next name may be free.
    }
  }
  throw exc::runtime_exc_t("All log files are locked.");
}

std::string ModuleVersion() {
  return KELVO_VERSION;
}

}  // namespace logging
