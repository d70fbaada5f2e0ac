// A mount agent of a test's own, beside the service that publishes its files.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "integration/support/process.h"
#include "integration/support/service.h"

namespace test {

/// kelvo-mount-agent over a source folder, with an overlay folder that is the agent's own and survives its restarts.
class CMountAgent {
 public:
  /// The service is only where the sockets go; it must live longer. Nothing is started yet. `options`: in the place of
  /// `--overlay OverlayFolder()`.
  CMountAgent(const CService& service, std::string pipe, std::string source,
              std::optional<std::vector<std::string>> options = {});

  /// Starts the process and waits until it can be found. Fails the test, with what it said, when it does not come up.
  void Start();
  /// SIGTERM; the exit code.
  int Stop();
  /// SIGKILL.
  void Kill();

  const std::string& Pipe() const { return pipe_; }
  std::string OverlayFolder() const { return folder_.Path() + "/overlay"; }
  std::string Output() const { return ReadFile(folder_.Path() + "/output"); }
  bool IsRunning() { return process_ && process_->IsRunning(); }

  /// Publishes the agent's files with kelvo-nfsctl; the ID of the mount. Fails the test when that fails.
  std::string Publish(const std::string& share = "/share", const std::string& folder = "/");
  /// kelvo-nfsctl on the service.
  SResult Ctl(const std::vector<std::string>& arguments) const;

 private:
  const CService& service_;
  std::string pipe_;
  std::string source_;
  CTempFolder folder_;
  std::vector<std::string> options_;
  std::unique_ptr<CProcess> process_;
};

}  // namespace test
