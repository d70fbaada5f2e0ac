// A service that a test crashes, and what it leaves.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "integration/preload/crash_injection.h"
#include "integration/support/service.h"

namespace test {

/// Name of a thread as the system keeps it, cut to 15 bytes.
inline constexpr const char* DispatchThread = "Async server";
inline constexpr const char* NfsThread = "Request queue n";

class CCrashTest : public testing::Test {
 protected:
  /// Sanitizers keep the signals for their own reports.
  void SetUp() override;

  /// A general option, before the start.
  void SetOption(const std::string& name, const std::string& type, const std::string& data);
  void UseRecorder() { SetOption("OutOfProcDumpGen", "REG_DWORD", "1"); }
  /// A kernel for which the text report is chosen.
  void UseTextReport() { service_.SetVariable(KernelVariable, "4.19.0-27-amd64"); }
  /// With the library that crashes it.
  void Start();
  /// A copy of the service without its neighbours, in a new folder; the folder.
  std::string CopyProgram(const std::string& folder = "copy");

  void Inject(injected_t how, const std::string& thread = DispatchThread);
  /// A signal that is sent to one thread from outside.
  void SendSignal(int signal, const std::string& thread);
  /// The process ends by the signal itself, not with a code.
  void ExpectEnd(int signal);

  /// Of the dumps and the log.
  std::string Folder() const;
  std::string DumpPath(int number, const std::string& extension = "mdmp") const;
  /// Dumps with these numbers, each a day younger than the one before.
  void MakeOldDumps(int first, int last);
  std::vector<std::string> DumpNames() const;
  /// What the debugger prints of the dump; the commands run in their order.
  static std::string Debug(const std::string& dump, const std::vector<std::string>& commands);
  /// The log from the crash on, without time and thread.
  std::vector<std::string> CrashLines() const;

  CService service_;
  CTempFolder copies_;

 private:
  std::optional<int> WaitingThread(const std::string& name);
  /// Of one that waits for work: when the ports answer, not all have begun.
  int ThreadId(const std::string& name);
};

/// The lines of the log behind the first that holds the text, that one included, without time and thread.
std::vector<std::string> LinesFrom(const std::string& log, const std::string& text);

}  // namespace test
