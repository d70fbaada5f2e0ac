#include "foundation/line_format.h"

#include <array>
#include <atomic>
#include <cstddef>

namespace logging::format {

namespace {

/// "[dd.mm.yyyy hh:mm:ss] ".
constexpr std::size_t TimeLength = 22;
constexpr std::size_t LongThreadIdWidth = 6;
constexpr std::size_t ShortThreadIdWidth = 2;

void PutDigits(char* place, int number, int count) {
  for (int index = count; index-- > 0; number /= 10)
    place[index] = static_cast<char>('0' + number % 10);
}

/// The last second that this thread wrote; most lines share theirs with the one before.
struct time_text_t {
  std::time_t time = -1;
  std::array<char, TimeLength> text{};
  bool valid = false;
};

std::atomic<std::int64_t> utcOffset{0};

void AppendTime(std::string& out, const std::time_t* time) {
  thread_local time_text_t last;
  std::tm parts{};
  if (time != nullptr && (!last.valid || last.time != *time)) {
    last.valid = ::localtime_r(time, &parts) != nullptr;
    if (last.valid) {
      last.time = *time;
      utcOffset.store(parts.tm_gmtoff, std::memory_order_relaxed);
      last.text = {'[', 0, 0, '.', 0, 0, '.', 0, 0, 0, 0, ' ', 0, 0, ':', 0, 0, ':', 0, 0, ']', ' '};
      char* const text = last.text.data();
      PutDigits(text + 1, parts.tm_mday, 2);
      PutDigits(text + 4, parts.tm_mon + 1, 2);
      PutDigits(text + 7, parts.tm_year + 1900, 4);
      PutDigits(text + 12, parts.tm_hour, 2);
      PutDigits(text + 15, parts.tm_min, 2);
      PutDigits(text + 18, parts.tm_sec, 2);
    }
  }
  if (time != nullptr && last.valid) {
    out.append(last.text.data(), last.text.size());
  } else {
    out += "TIME ---";
  }
}

void AppendThreadId(std::string& out, std::uint32_t threadId, std::size_t width) {
  const std::string digits = std::to_string(threadId);
  out.push_back('<');
  if (digits.size() < width)
    out.append(width - digits.size(), ' ');
  out += digits;
  out += "> ";
}

std::string_view LevelMark(level_t level, bool continuation) {
  if (level != level_t::Warning && level != level_t::Error)
    return {};
  if (continuation)
    return ">>  |";
  return level == level_t::Warning ? "WARN|" : "ERR |";
}

std::string_view LevelWord(level_t level) {
  if (level == level_t::Warning)
    return "Warning  ";
  return level == level_t::Error ? "Error    " : "Info     ";
}

}  // namespace

std::int64_t UtcOffset() noexcept {
  return utcOffset.load(std::memory_order_relaxed);
}

void AppendLine(std::string& out, format_mode_t mode, const line_t& line) {
  if (mode != format_mode_t::Bare)
    AppendTime(out, line.time);
  if (mode == format_mode_t::Normal) {
    AppendThreadId(out, line.threadId, LongThreadIdWidth);
    if (!line.name.empty()) {
      out += line.name;
      out += "| ";
    }
    out += LevelMark(line.level, line.continuation);
  } else {
    if (mode == format_mode_t::Short)
      AppendThreadId(out, line.threadId % 100, ShortThreadIdWidth);
    out += LevelWord(line.level);
  }
  if (line.depth > 0)
    out.append(static_cast<std::size_t>(line.depth) * 2, ' ');
  out += line.text;
  out.push_back('\n');
}

}  // namespace logging::format
