// How one line of the log looks.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "foundation/log.h"

namespace logging::format {

/// What stands on one line.
struct line_t {
  level_t level = level_t::Info;
  bool continuation = false;
  std::int32_t depth = 0;
  std::uint32_t threadId = 0;
  /// Nothing when the clock cannot be read.
  const std::time_t* time = nullptr;
  /// The handle's name, empty for none.
  std::string_view name;
  std::string_view text;
};

/// Appends the line and its line end. Normal mode, by the piece: "[15.11.2026 09:48:25] ", "<  1234> ", "nfs| ",
/// "ERR |" (">>  |" on a continuation), two blanks a level of depth, the text. Any thread.
void AppendLine(std::string& out, format_mode_t mode, const line_t& line);

/// Seconds of local time before UTC, as the latest line found it: for a crash report, which must not ask the library,
/// whose lock the crashed thread may hold. Any thread.
std::int64_t UtcOffset() noexcept;

}  // namespace logging::format
