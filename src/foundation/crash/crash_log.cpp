#include "foundation/crash/crash_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "foundation/line_format.h"
#include "foundation/write_all.h"

namespace crash {

namespace {

constexpr std::size_t ThreadIdWidth = 6;
constexpr std::int64_t SecondsPerDay = 86400;

struct date_t {
  std::int64_t year = 0;
  std::uint64_t month = 0;
  std::uint64_t day = 0;
};

/// The proleptic Gregorian date of a day counted from 1970-01-01. The library's own conversion takes a lock.
date_t DateOf(std::int64_t day) noexcept {
  constexpr std::int64_t DaysPerEra = 146097;
  day += 719468;  // From 0000-03-01, so that the leap day ends a year.
  const std::int64_t era = day / DaysPerEra;
  const std::int64_t ofEra = day % DaysPerEra;
  const std::int64_t yearOfEra = (ofEra - ofEra / 1460 + ofEra / 36524 - ofEra / 146096) / 365;
  const std::int64_t ofYear = ofEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t shifted = (5 * ofYear + 2) / 153;
  const std::int64_t month = shifted < 10 ? shifted + 3 : shifted - 9;
  return {era * 400 + yearOfEra + (month <= 2 ? 1 : 0), static_cast<std::uint64_t>(month),
          static_cast<std::uint64_t>(ofYear - (153 * shifted + 2) / 5 + 1)};
}

}  // namespace

void AddDateTime(text_t& text) noexcept {
  std::timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t local = std::max<std::int64_t>(now.tv_sec + logging::format::UtcOffset(), 0);
  const date_t date = DateOf(local / SecondsPerDay);
  const auto seconds = static_cast<std::uint64_t>(local % SecondsPerDay);
  text.AddDecimal(date.day, 2).Add('.').AddDecimal(date.month, 2).Add('.');
  text.AddDecimal(static_cast<std::uint64_t>(date.year), 4).Add(' ').AddDecimal(seconds / 3600, 2).Add(':');
  text.AddDecimal(seconds / 60 % 60, 2).Add(':').AddDecimal(seconds % 60, 2);
}

crash_log_t::crash_log_t(const char* path) noexcept : depth_(logging::IndentationDepth()) {
  if (*path != '\0')
    file_ = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
  isOwn_ = file_ >= 0;
  if (!isOwn_)
    file_ = STDERR_FILENO;
}

crash_log_t::~crash_log_t() {
  if (isOwn_)
    ::close(file_);
}

void crash_log_t::Info(std::string_view pattern, std::initializer_list<std::string_view> arguments) noexcept {
  fixed_text_t<2 * MaxPath> text;
  text.Format(pattern, arguments);
  Write(logging::level_t::Info, text.View());
}

void crash_log_t::Error(std::string_view text, const failure_t& failure) noexcept {
  fixed_text_t<3 * MaxPath> whole;
  whole.Add(text).Add('\n').Add(failure.Text());
  whole.Format("\nAn exception was thrown from thread [%1].", {decimal_t(static_cast<std::uint64_t>(::gettid()))});
  Write(logging::level_t::Error, whole.View());
}

void crash_log_t::Write(logging::level_t level, std::string_view text) noexcept {
  bool isFirst = true;
  for (bool isMore = true; isMore; isFirst = false) {
    const std::size_t end = text.find('\n');
    isMore = end != std::string_view::npos;
    fixed_text_t<2 * MaxPath> line;
    line.Add('[');
    AddDateTime(line);
    line.Add("] <");
    const decimal_t thread(static_cast<std::uint64_t>(::gettid()));
    const std::size_t width = std::string_view(thread).size();
    line.AddSpaces(ThreadIdWidth - std::min(width, ThreadIdWidth)).Add(thread).Add("> ");
    if (level == logging::level_t::Error)
      line.Add(isFirst ? "ERR |" : ">>  |");
    line.AddSpaces(static_cast<std::size_t>(std::max(depth_, 0)) * 2).Add(text.substr(0, end)).Add('\n');
    io::WriteAll(file_, line.View());
    text.remove_prefix(isMore ? end + 1 : 0);
  }
}

crash_log_scope_t::crash_log_scope_t(crash_log_t& log, std::string_view text) noexcept : log_(log), text_(text) {
  log_.Info("%1", {text_});
  log_.Indent(1);
}

crash_log_scope_t::~crash_log_scope_t() {
  if (!isOpen_)
    return;
  Leave();
  log_.Info("%1 Failed.", {text_});
}

void crash_log_scope_t::Success(std::string_view text) noexcept {
  Leave();
  log_.Info("%1", {text});
}

void crash_log_scope_t::Leave() noexcept {
  if (isOpen_)
    log_.Indent(-1);
  isOpen_ = false;
}

}  // namespace crash
