// The log after a crash.
#pragma once

#include <initializer_list>
#include <string_view>

#include "foundation/dump/text.h"
#include "foundation/log.h"

namespace crash {

/// Writes lines to the log's file in its format, past the log itself: its lock and the heap may be in the hands of the
/// thread that has crashed. What went before stays above, since everyone appends. Made on the spot, by one thread.
class crash_log_t {
 public:
  /// Without a path, or when the file cannot be opened, lines go to standard error.
  explicit crash_log_t(const char* path) noexcept;
  crash_log_t(const crash_log_t&) = delete;
  crash_log_t& operator=(const crash_log_t&) = delete;
  ~crash_log_t();

  void Info(std::string_view pattern, std::initializer_list<std::string_view> arguments = {}) noexcept;
  /// The sentence, and what the failure tells on following lines.
  void Error(std::string_view text, const failure_t& failure) noexcept;
  /// Indents what follows by so many levels.
  void Indent(int levels) noexcept { depth_ += levels; }
  int Depth() const noexcept { return depth_; }

 private:
  void Write(logging::level_t level, std::string_view text) noexcept;

  int file_ = -1;
  bool isOwn_ = false;
  int depth_ = 0;
};

/// A stretch of work in it, as logging::log_scope_t: its text at once, what follows indented, and the text with
/// " Failed." at the end unless Success() was called.
class crash_log_scope_t {
 public:
  crash_log_scope_t(crash_log_t& log, std::string_view text) noexcept;
  crash_log_scope_t(const crash_log_scope_t&) = delete;
  crash_log_scope_t& operator=(const crash_log_scope_t&) = delete;
  ~crash_log_scope_t();

  void Success() noexcept { Leave(); }
  /// Writes the text at the outer depth.
  void Success(std::string_view text) noexcept;

 private:
  void Leave() noexcept;

  crash_log_t& log_;
  const std::string_view text_;
  bool isOpen_ = true;
};

/// "15.11.2026 09:48:25" of now, in local time as the log last knew it.
void AddDateTime(text_t& text) noexcept;

}  // namespace crash
