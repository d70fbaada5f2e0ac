// Child processes of a test.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace test {

using namespace std::chrono_literals;

/// Polls until the condition holds; false when the limit passes first.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = 30s);

struct SResult {
  int exitCode = -1;  ///< 128 + the signal for a process that was killed.
  std::string out;
  std::string err;
};

/// Runs a program to its end. Environment entries are added to the test's own.
SResult RunProgram(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment = {},
                   const std::string& input = {});

/// A program that runs beside the test; killed and reaped at the latest by the destructor.
class CProcess {
 public:
  CProcess(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment,
           const std::string& outputPath = {});
  CProcess(const CProcess&) = delete;
  CProcess& operator=(const CProcess&) = delete;
  ~CProcess();

  pid_t Pid() const { return pid_; }
  void Signal(int number) const;
  bool IsRunning();
  /// The exit code, or nothing when the limit passes first.
  std::optional<int> WaitForExit(std::chrono::milliseconds limit = 60s);
  /// The signal that ended it; 0 while it runs and after it has left by itself, with whatever code.
  int EndSignal() const { return endSignal_; }

 private:
  pid_t pid_ = -1;
  std::optional<int> exitCode_;
  int endSignal_ = 0;
};

/// The path of a program of this build.
std::string Program(const std::string& name);

/// A folder that goes with its owner.
class CTempFolder {
 public:
  CTempFolder();
  CTempFolder(const CTempFolder&) = delete;
  CTempFolder& operator=(const CTempFolder&) = delete;
  ~CTempFolder();
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

}  // namespace test
