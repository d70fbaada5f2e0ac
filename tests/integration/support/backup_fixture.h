// A service that shows backups, with the agents of a test: real ones, and ones in the test's process that do as told.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "integration/support/agent.h"
#include "integration/support/footprint.h"
#include "integration/support/wire_fixture.h"
#include "support/fake_mount_agent.h"

namespace test {

/// Longer than the service takes to bring a mount back: its health check comes every half minute.
inline constexpr std::chrono::seconds ReconnectLimit = 45s;

/// Calls in a thread of its own, with a client of its own; the answer is waited for at the latest by the destructor.
class CReader {
 public:
  /// Reads so many bytes from the start of a file.
  CReader(const bytes_t& handle, std::uint32_t count);
  CReader(const CReader&) = delete;
  CReader& operator=(const CReader&) = delete;
  ~CReader() { Wait(); }

  bool IsDone() const { return isDone_; }
  /// The answer.
  const SReadResult& Wait();
  /// How long the answer took; once it is there.
  std::chrono::milliseconds Took() const { return took_; }

 private:
  std::atomic<bool> isDone_ = false;
  SReadResult result_;
  std::chrono::milliseconds took_{};
  std::thread thread_;
};

class CBackupTest : public CWireTest {
 protected:
  /// Agents in this process find the service; and both have all the descriptors that may be had.
  CBackupTest();

  SResult Ctl(const std::vector<std::string>& arguments) const;
  /// The ID of the mount; the test fails when it is refused.
  std::string Publish(const std::string& pipe, const std::string& folder = "/",
                      const std::vector<std::string>& options = {});
  /// What is told when a mount must be refused.
  std::string Refused(const std::string& pipe, const std::string& folder = "/",
                      const std::vector<std::string>& options = {});
  void Withdraw(const std::string& mountId);
  /// The machines in use.
  std::set<std::string> Locks() const;

  /// Names in a folder, each of them once.
  std::set<std::string> NamesIn(const bytes_t& folder);
  /// A folder below the share's root, made on the disk.
  bytes_t MakeFolder(const std::string& path);
  SAttributes AttributesOf(const bytes_t& handle);
  bytes_t ContentOf(const bytes_t& handle, std::uint32_t count = 65536);
  bool IsReadable(const bytes_t& handle);
  std::size_t LinesInLog(const std::string& text) const;

  SFootprint Footprint() { return FootprintOf(service_.Process().Pid()); }
  /// The footprint once it stands still, with the management interface in use.
  SFootprint SettledFootprint();
  /// Waits until threads and descriptors are as they were.
  void ExpectFootprint(const SFootprint& before);
};

/// A folder of a backup: files by name.
class CBackupFolder {
 public:
  CBackupFolder(std::initializer_list<std::pair<std::string, std::string>> files) {
    for (const auto& [name, content] : files)
      WriteFile(folder_.Path() + "/" + name, content);
  }
  const std::string& Path() const { return folder_.Path(); }
  std::string File(const std::string& name) const { return folder_.Path() + "/" + name; }

 private:
  CTempFolder folder_;
};

}  // namespace test
