// Writing to the log. Opening is in log_setup.h, rotation in log_rotation.h, receivers in log_file.h.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>

#include "foundation/exc.h"
#include "foundation/monitoring.h"

namespace logging {

namespace receiver {
class log_file_t;
}

enum class level_t { Verbose = 1, Info = 2, Warning = 3, Error = 4 };

/// How a line begins: Normal with time, thread and handle; Short with time, two digits of the thread and the level
/// word; Bare with the level word alone.
enum class format_mode_t : std::int32_t { Normal = 0, Short = 1, Bare = 2 };

/// Changes the text of each line before it is written. Called by any thread, without a lock held.
class text_filter_t {
 public:
  virtual std::string Apply(std::string_view text) = 0;
  virtual ~text_filter_t() = default;
};

/// Rotation of the open file; see log_rotation.h.
struct rotation_settings_t {
  /// Bytes; 0 turns rotation off.
  std::uint64_t maxSize = 15728640;
  /// Archives that are kept, the unnumbered one included.
  std::uint32_t maxCount = 10;
};

/// The object behind the handles. Any thread; nothing but construction throws. Usable before main() and after it.
class log_t {
 public:
  constexpr log_t() = default;
  log_t(const log_t&) = delete;
  log_t& operator=(const log_t&) = delete;

  /// One load each: what would be dropped need not be formatted.
  bool IsOpen() const noexcept { return (switches_.load(std::memory_order_relaxed) & DroppingMask) == Opened; }
  bool IsVerbose() const noexcept {
    return (switches_.load(std::memory_order_relaxed) & (DroppingMask | VerboseOn)) == (Opened | VerboseOn);
  }

  /// Where lines go from now on; none drops them. With settings, the size is tested at once and then after every
  /// 1000 lines.
  void SetReceiver(boost::shared_ptr<receiver::log_file_t> receiver);
  void SetReceiver(boost::shared_ptr<receiver::log_file_t> receiver, const rotation_settings_t& rotation);
  boost::shared_ptr<receiver::log_file_t> Receiver() const;
  /// A second receiver that gets each line after the first one has it; its failures are its own.
  void SetMirror(boost::shared_ptr<receiver::log_file_t> mirror);
  void SetFilter(boost::shared_ptr<text_filter_t> filter);
  void SetMode(format_mode_t mode) noexcept { mode_.store(mode, std::memory_order_relaxed); }
  void SetVerbose(bool verbose) noexcept { Switch(VerboseOn, verbose); }
  /// Lines are dropped while suspended.
  void SetSuspended(bool suspended) noexcept { Switch(Suspended, suspended); }

  /// Writes the text at the calling thread's depth, one line a line feed. A failed write is swallowed.
  void Write(level_t level, std::string_view name, std::string_view text) noexcept;

 private:
  static constexpr std::uint32_t Opened = 1;
  static constexpr std::uint32_t Suspended = 2;
  static constexpr std::uint32_t VerboseOn = 4;
  static constexpr std::uint32_t DroppingMask = Opened | Suspended;

  friend class lines_together_t;

  void Switch(std::uint32_t bit, bool on) noexcept;
  void WriteLines(const std::string& lines) noexcept;
  void WriteLinesLocked(const std::string& lines) noexcept;
  void CheckSizeLocked() noexcept;

  std::atomic<std::uint32_t> switches_{0};
  std::atomic<format_mode_t> mode_{format_mode_t::Normal};
  std::atomic<bool> filtered_{false};

  /// Guards all below, and each write: lines never mix, and all wait while a file is compressed.
  mutable std::mutex lock_;
  boost::shared_ptr<receiver::log_file_t> receiver_;
  boost::shared_ptr<receiver::log_file_t> mirror_;
  boost::shared_ptr<text_filter_t> filter_;
  rotation_settings_t rotation_;
  bool rotationEnabled_ = false;
  std::int32_t linesSinceCheck_ = 0;
};

/// The process's log. Never destroyed.
log_t& TheLog() noexcept;

/// What a placeholder can stand for; exceptions have overloads of their own.
template <typename T>
concept loggable_t = !std::is_base_of_v<std::exception, T>;

/// One named way into the log. Any thread; never throws once constructed, and a line that is not written is not
/// formatted.
class log_handle_t {
 public:
  /// The name must outlive the handle; it is written before each line, followed by "| ", unless it is empty.
  constexpr log_handle_t(std::string_view name, log_t& log) noexcept : log_(&log), name_(name) {}
  explicit log_handle_t(std::string_view name) noexcept : log_handle_t(name, TheLog()) {}

  template <loggable_t... Args>
  void Info(std::string_view pattern, const Args&... arguments) const noexcept {
    Write(level_t::Info, pattern, arguments...);
  }
  template <loggable_t... Args>
  void Warning(std::string_view pattern, const Args&... arguments) const noexcept {
    Write(level_t::Warning, pattern, arguments...);
  }
  template <loggable_t... Args>
  void Error(std::string_view pattern, const Args&... arguments) const noexcept {
    Write(level_t::Error, pattern, arguments...);
  }
  /// Written only with -verbose. Arguments that cost something to make: ask IsVerbose() first.
  template <loggable_t... Args>
  void Verbose(std::string_view pattern, const Args&... arguments) const noexcept {
    if (IsVerbose())
      Write(level_t::Verbose, pattern, arguments...);
  }
  bool IsVerbose() const noexcept { return log_->IsVerbose(); }
  /// False when lines would be dropped (nothing open, suspended).
  bool IsOpen() const noexcept { return log_->IsOpen(); }

  /// The text, then the exception's own lines and the id of the thread that built it.
  void Exception(level_t level, std::string_view text, const std::exception& exception) const noexcept;
  /// The same with a text that has placeholders, which are left as they are when there is no memory to fill them.
  template <loggable_t... Args>
  void Error(std::string_view pattern, const std::exception& exception, const Args&... arguments) const noexcept {
    WriteException(level_t::Error, exception, pattern, arguments...);
  }
  template <loggable_t... Args>
  void Warning(std::string_view pattern, const std::exception& exception, const Args&... arguments) const noexcept {
    WriteException(level_t::Warning, exception, pattern, arguments...);
  }

  /// Writes a finished text, one line a line feed.
  void WriteText(level_t level, std::string_view text) const noexcept { log_->Write(level, name_, text); }

 private:
  template <typename... Args>
  void Write(level_t level, std::string_view pattern, const Args&... arguments) const noexcept {
    if (!IsOpen())
      return;
    if constexpr (sizeof...(Args) == 0) {
      WriteText(level, pattern);
    } else {
      try {
        WriteText(level, exc::FormatText(pattern, arguments...));
      } catch (const std::exception&) {
        // Out of memory while a line is made: the line is lost, the work goes on.
      }
    }
  }

  template <typename... Args>
  void WriteException(level_t level, const std::exception& exception, std::string_view pattern,
                      const Args&... arguments) const noexcept {
    if constexpr (sizeof...(Args) == 0) {
      Exception(level, pattern, exception);
    } else {
      std::string text;
      try {
        text = exc::FormatText(pattern, arguments...);
      } catch (const std::exception&) {
        return Exception(level, pattern, exception);
      }
      Exception(level, text, exception);
    }
  }

  log_t* log_;
  std::string_view name_;
};

/// General code, the protocol and the file system, the management interface. Usable from the first constructor on.
extern const log_handle_t g_log;
extern const log_handle_t g_nfs_log;
extern const log_handle_t g_rpc_log;

/// The calling thread's depth of indentation.
std::int32_t IndentationDepth() noexcept;

/// Indents what the calling thread logs while it lives.
class indent_t {
 public:
  indent_t() noexcept;
  indent_t(const indent_t&) = delete;
  indent_t& operator=(const indent_t&) = delete;
  ~indent_t();
};

/// While one lives, what its thread logs waits in memory, up to 64 KiB, and then leaves together, which costs a call of
/// the system and not one for each line: for lines that follow each other closely, with nothing between them that could
/// fail. One inside another does nothing. Lives on one thread's stack.
class lines_together_t {
 public:
  lines_together_t() noexcept;
  lines_together_t(const lines_together_t&) = delete;
  lines_together_t& operator=(const lines_together_t&) = delete;
  ~lines_together_t();

 private:
  friend class log_t;
  /// False for lines of another log than that of the first.
  bool Take(log_t& log, const std::string& lines);

  log_t* log_ = nullptr;
  std::string lines_;
};

/// A stretch of work: its text is written at once and what is logged inside is indented. Left without Success() it
/// writes its text with " Failed.". Noted in the thread's trace. Lives on one thread's stack.
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
  void Leave() noexcept;

  const log_handle_t& log_;
  std::string text_;
  monitoring::scope_note_t note_;
  bool finished_ = false;
};

/// A scope for per-packet work: noted in the thread's trace, writes nothing unless it is left unfinished, and costs no
/// formatting. The pattern must live as long as the process; up to two numbers stand for %1 and %2.
class quiet_log_scope_t {
 public:
  quiet_log_scope_t(const log_handle_t& log, const char* pattern, std::uint64_t first = 0,
                    std::uint64_t second = 0) noexcept;
  quiet_log_scope_t(const quiet_log_scope_t&) = delete;
  quiet_log_scope_t& operator=(const quiet_log_scope_t&) = delete;
  ~quiet_log_scope_t();

  void Success() noexcept;

 private:
  const log_handle_t& log_;
  const char* pattern_;
  std::uint64_t first_;
  std::uint64_t second_;
  monitoring::scope_note_t note_;
  bool finished_ = false;
};

}  // namespace logging

namespace exc {

/// Writes the text, the exception's lines and the id of the thread that built it ("n/a" outside the family).
void LogException(const logging::log_handle_t& handle, logging::level_t level, std::string_view text,
                  const std::exception& exception) noexcept;

}  // namespace exc

using logging::g_log;
using logging::g_nfs_log;
using logging::g_rpc_log;
