// A small machine that starts from an export, under software emulation.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "integration/support/process.h"

namespace test {

/// The disk that the machine starts from, as scripts/build-guest-disk builds it. The file is kept between runs and is
/// for reading only; it lies alone in its folder, so that the folder can be an agent's source.
class CGuestDisk {
 public:
  /// Builds the disk when that was not done before. Throws with what the script says when it cannot be built: the
  /// kernel's package is loaded from Debian's mirror, which a test in a network namespace of its own cannot reach.
  CGuestDisk();
  const std::string& Path() const { return path_; }
  std::string Folder() const;
  /// A copy that may be written; sparse as the disk itself.
  void CopyTo(const std::string& path) const;
  /// The checksum of the file as it is now, in hexadecimal digits.
  std::string Sha256() const { return Sha256Of(path_); }
  static std::string Sha256Of(const std::string& path);
  /// Whether a disk has this file in its root file system, with the content that the checksum in PATH.sum tells.
  static bool HoldsIntact(const std::string& disk, const std::string& path);

 private:
  std::string path_;
};

/// What becomes of an I/O error of the guest's disk.
enum class OnDiskError {
  Report,  ///< The guest is told.
  Stop     ///< The machine is halted with the call pending, and Continue does the call again.
};

struct SGuestOptions {
  unsigned files = 4;  ///< How many files the guest writes and reads back, of 512 KiB each.
  OnDiskError onError = OnDiskError::Report;
};

/// One run of the machine. Its init (scripts/guest/init) checks the files of the disk, then those that earlier runs
/// wrote, writes and reads back its own, tells each step on the console and powers off. Ends with its owner.
class CGuest {
 public:
  /// Starts the machine from a URL as nfs://127.0.0.1/share/disk.img. The share is mounted under the path before the
  /// last separator.
  explicit CGuest(const std::string& url, const SGuestOptions& options = {});
  CGuest(const CGuest&) = delete;
  CGuest& operator=(const CGuest&) = delete;
  ~CGuest();

  /// Waits until the console shows a line with the text. False when the machine ended without it or the limit passed.
  bool WaitFor(const std::string& text, std::chrono::milliseconds limit = 120s);
  /// The exit code of the emulator, 0 after the guest powered off; nothing when the limit passed.
  std::optional<int> WaitForExit(std::chrono::milliseconds limit = 120s) { return process_->WaitForExit(limit); }
  bool IsRunning() { return process_->IsRunning(); }

  /// What the console and the emulator showed so far, without carriage returns and control sequences.
  std::string Console() const;
  /// The last lines of it, for the message of a failure.
  std::string LastLines(unsigned count = 25) const;

  /// The state that the emulator tells: "running", "io-error", "paused", …; empty when it does not answer within
  /// seconds, as while it waits for the calls of a machine that it halts.
  std::string Status();
  /// Lets a machine go on that was halted by an error.
  void Continue();

 private:
  std::string Command(const std::string& name);

  CTempFolder folder_;
  std::string consolePath_;
  std::string controlPath_;
  std::unique_ptr<CProcess> process_;
};

}  // namespace test
