// Writing to the log. Opening, rotation and receivers are in log_file.h and log_setup.h.
#pragma once

#include <string>
#include <string_view>

#include "foundation/exc.h"

namespace logging {

class log_t;

enum class level_t { Verbose = 1, Info = 2, Warning = 3, Error = 4 };

/// One named way into the log. Any thread; never throws once constructed, and a line that is not written is not
/// formatted.
class log_handle_t {
 public:
  explicit log_handle_t(std::string_view name);

  template <typename... Args>
  void Info(std::string_view pattern, const Args&... arguments) const {
    Write(level_t::Info, pattern, arguments...);
  }
  template <typename... Args>
  void Warning(std::string_view pattern, const Args&... arguments) const {
    Write(level_t::Warning, pattern, arguments...);
  }
  template <typename... Args>
  void Error(std::string_view pattern, const Args&... arguments) const {
    Write(level_t::Error, pattern, arguments...);
  }
  /// Written only with -verbose. Arguments that cost something to make: ask IsVerbose() first.
  template <typename... Args>
  void Verbose(std::string_view pattern, const Args&... arguments) const {
    if (IsVerbose()) Write(level_t::Verbose, pattern, arguments...);
  }
  bool IsVerbose() const noexcept;
  /// False when lines of this level would be dropped (nothing open, suspended).
  bool IsOpen() const noexcept;

  /// The text, then the exception's own lines and the id of the thread that built it.
  void Exception(level_t level, std::string_view text, const std::exception& exception) const;
  void Error(std::string_view text, const std::exception& exception) const { Exception(level_t::Error, text, exception); }
  void Warning(std::string_view text, const std::exception& exception) const {
    Exception(level_t::Warning, text, exception);
  }

  /// Writes a finished text, one line a line feed.
  void WriteText(level_t level, std::string_view text) const noexcept;

 private:
  template <typename... Args>
  void Write(level_t level, std::string_view pattern, const Args&... arguments) const {
    if (!IsOpen()) return;
    if constexpr (sizeof...(Args) == 0) {
      WriteText(level, pattern);
    } else {
      WriteText(level, exc::FormatText(pattern, arguments...));
    }
  }

  std::string prefix_;
};

/// General code, the protocol and the file system, the management interface. Usable from the first constructor on.
extern const log_handle_t& g_log;
extern const log_handle_t& g_nfs_log;
extern const log_handle_t& g_rpc_log;

/// A stretch of work: its text is written at once and what is logged inside is indented. Left without Success() it
/// writes its text with " Failed.". Lives on one thread's stack.
class log_scope_t {
 public:
  log_scope_t(const log_handle_t& log, std::string text);
  log_scope_t(const log_scope_t&) = delete;
  log_scope_t& operator=(const log_scope_t&) = delete;
  ~log_scope_t();

  void Success();
  /// Writes the text at the outer depth.
  void Success(std::string_view text);
  /// Writes the scope's text followed by " ok.".
  void SuccessOk();

 private:
  void Leave();

  const log_handle_t& log_;
  std::string text_;
  bool finished_ = false;
};

/// A scope for per-packet work: writes nothing unless it is left unfinished, and costs no formatting. The pattern
/// must outlive the scope; up to two numbers stand for %1 and %2.
class quiet_log_scope_t {
 public:
  quiet_log_scope_t(const log_handle_t& log, const char* pattern, std::uint64_t first = 0, std::uint64_t second = 0) noexcept;
  quiet_log_scope_t(const quiet_log_scope_t&) = delete;
  quiet_log_scope_t& operator=(const quiet_log_scope_t&) = delete;
  ~quiet_log_scope_t();

  void Success() noexcept;

 private:
  const log_handle_t& log_;
  const char* pattern_;
  std::uint64_t first_;
  std::uint64_t second_;
  bool finished_ = false;
};

}  // namespace logging

using logging::g_log;
using logging::g_nfs_log;
using logging::g_rpc_log;
