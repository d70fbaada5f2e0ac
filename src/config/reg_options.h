// The options of this service.
#pragma once

#include <string>

/// Written once, by Load, before other threads read. Never throws for what is missing: the default stands, and a value
/// of another type counts as missing.
class CRegOptions {
 public:
  /// The defaults, and what is stored when `load` is set.
  explicit CRegOptions(bool load);

  /// Reads the options and logs each with what stands. False when the key cannot be opened.
  bool Load();

  /// Where the performance log goes. False, with `path` untouched, when none is asked for.
  bool GetPerfLogPath(std::string& path) const;
  /// Which protocol server serves: asynchronous or synchronous.
  bool IsAsyncTcp() const noexcept { return asyncTcp_; }
  /// Every address is allowed.
  bool IsIpAuthDisabled() const noexcept { return disableIpAuth_; }

 private:
  void LogOptions() const;

  bool hasPerfLogPath_ = false;
  std::string perfLogPath_;
  bool asyncTcp_ = true;
  bool disableIpAuth_ = false;
};
