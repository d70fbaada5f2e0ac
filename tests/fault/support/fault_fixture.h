// A service whose system calls can be made to fail while it runs, and the disks that it stands on.
#pragma once

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fault/preload/fault_injection.h"
#include "integration/support/footprint.h"
#include "integration/support/small_disk.h"
#include "integration/support/wire_fixture.h"

namespace test {

/// Numbers that clients are told of a host's failures.
inline constexpr std::uint32_t TooManyOpenFiles = 4;
inline constexpr std::uint32_t HostAccessDenied = 5;
inline constexpr std::uint32_t NotEnoughMemory = 8;
inline constexpr std::uint32_t DiskFull = 112;
inline constexpr std::uint32_t IoDevice = 1117;

/// Lets the test make calls of one process fail.
class CFaults {
 public:
  CFaults();
  CFaults(const CFaults&) = delete;
  CFaults& operator=(const CFaults&) = delete;
  ~CFaults();

  /// Of the process that is started with it.
  std::map<std::string, std::string> Environment() const;
  SFaults* operator->() const { return faults_; }
  /// Paths that begin like this are meant from here on. No fault is set.
  void SetPath(const std::string& path);
  /// Nothing fails any more.
  void Clear();

 private:
  CTempFolder folder_;
  SFaults* faults_ = nullptr;
};

/// A share with a few files whose contents are known. The test may prepare the service before Begin starts it.
class CFaultTest : public CWireTest {
 protected:
  /// Before the service is started: the folder becomes a disk of its own with what it held.
  std::unique_ptr<CSmallDisk> MakeDisk(const std::string& path, const std::string& size);
  std::string StateFolder() const { return service_.Environment().at("ALLUSERSPROFILE"); }
  /// Loads the library into the service.
  void UseFaults();

  void SetUp() override {}
  /// Starts the service, and makes the files.
  void Begin();

  /// Reads and writes "known", lists and looks up: what must go on, whatever fails elsewhere.
  void ExpectServing();
  /// Everything works: what ExpectServing does, and a file made, written, renamed and removed in a new folder.
  void ExpectWell();
  /// Waits until the service has no more descriptors than so many.
  void ExpectDescriptors(std::size_t most);
  std::size_t Descriptors() { return FootprintOf(service_.Process().Pid()).descriptors; }
  /// Uses up the room of a disk with a file of the test's own; the file's path.
  static std::string Fill(const std::string& folder);

  /// One file that all cases have, with KnownContent.
  bytes_t known_;
  const std::string knownContent_ = std::string(5000, 'k');
  CFaults faults_;

 private:
  int round_ = 0;
};

}  // namespace test
