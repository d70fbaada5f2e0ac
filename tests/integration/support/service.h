// A service of a test's own: its stored state, its share, its process.
#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "integration/support/process.h"

namespace test {

/// One of the protocol servers that the same suite is run against.
struct SServerKind {
  const char* name;
  std::vector<std::vector<std::string>> registry;  ///< VALUE, TYPE, DATA below the service's key.
};

/// What gtest shows of the parameter.
inline void PrintTo(const SServerKind& kind, std::ostream* out) {
  *out << kind.name;
}

inline const SServerKind AsyncServer{"Async", {}};

/// Everything lies in a temporary folder. The share /share exports Root().
class CService {
 public:
  explicit CService(const SServerKind& kind = AsyncServer);
  ~CService();

  /// Starts the process and waits until the ports are registered. Fails the test, with the log, when it does not.
  void Start(const std::vector<std::string>& switches = {});
  /// Of the service alone, from the next start on.
  void SetVariable(const std::string& name, const std::string& value) { variables_[name] = value; }
  /// Another file than that of the build.
  void SetProgram(const std::string& path) { program_ = path; }
  /// SIGTERM; the exit code.
  int Stop();
  /// SIGKILL.
  void Kill();

  /// Host folder behind the share.
  const std::string& Root() const { return root_; }
  std::string LogText() const;
  std::string LogPath() const;
  std::string Output() const { return ReadFile(outputPath_); }
  std::map<std::string, std::string> Environment() const;
  CProcess& Process() { return *process_; }
  bool IsRunning() { return process_ && process_->IsRunning(); }

  /// kelvo-reg set / get below "SOFTWARE/KelvO/Kelvo NFS".
  void SetValue(const std::string& name, const std::string& type, const std::string& data,
                const std::string& subKey = {});
  std::string GetValue(const std::string& name, const std::string& subKey = {});
  SResult Reg(const std::vector<std::string>& arguments);

 private:
  CTempFolder folder_;
  std::string root_;
  std::string outputPath_;
  std::string program_ = Program("KelvoNfsSvc");
  std::map<std::string, std::string> variables_;
  std::unique_ptr<CProcess> process_;
};

}  // namespace test
