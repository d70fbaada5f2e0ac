#include "foundation/log.h"

#include <algorithm>
#include <ctime>
#include <exception>

#include "foundation/line_format.h"
#include "foundation/log_file.h"
#include "foundation/log_rotation.h"

namespace logging {

namespace {

constexpr std::int32_t LinesBetweenChecks = 1000;
constexpr std::size_t MostTogether = std::size_t{64} << 10;

/// Threads may log until the very end of the process, so that the log must outlive every destructor.
union undying_log_t {
  log_t log;
  constexpr undying_log_t() : log() {}
  ~undying_log_t() {}
};

constinit undying_log_t theLog;
thread_local constinit std::int32_t depth = 0;
/// The calling thread's outermost.
thread_local constinit lines_together_t* together = nullptr;

/// The thread's record shows the depth to a crash report; lines take it from here, also when there is no record.
void ChangeDepth(std::int32_t change) noexcept {
  depth += change;
  if (monitoring::CThreadTrace* const trace = monitoring::CurrentTrace())
    trace->SetDepth(depth);
}

}  // namespace

constinit const log_handle_t g_log("", theLog.log);
constinit const log_handle_t g_nfs_log("nfs", theLog.log);
constinit const log_handle_t g_rpc_log("rpc", theLog.log);

log_t& TheLog() noexcept {
  return theLog.log;
}

std::int32_t IndentationDepth() noexcept {
  return depth;
}

indent_t::indent_t() noexcept {
  ChangeDepth(1);
}

indent_t::~indent_t() {
  ChangeDepth(-1);
}

void log_t::Switch(std::uint32_t bit, bool on) noexcept {
  if (on) {
    switches_.fetch_or(bit, std::memory_order_relaxed);
  } else {
    switches_.fetch_and(~bit, std::memory_order_relaxed);
  }
}

void log_t::SetReceiver(boost::shared_ptr<receiver::log_file_t> receiver) {
  boost::shared_ptr<receiver::log_file_t> old;
  const std::lock_guard<std::mutex> guard(lock_);
  old.swap(receiver_);
  receiver_ = std::move(receiver);
  rotationEnabled_ = false;
  Switch(Opened, receiver_ != nullptr);
}

void log_t::SetReceiver(boost::shared_ptr<receiver::log_file_t> receiver, const rotation_settings_t& rotation) {
  SetReceiver(std::move(receiver));
  const std::lock_guard<std::mutex> guard(lock_);
  rotation_ = rotation;
  rotationEnabled_ = receiver_ != nullptr;
  CheckSizeLocked();
}

boost::shared_ptr<receiver::log_file_t> log_t::Receiver() const {
  const std::lock_guard<std::mutex> guard(lock_);
  return receiver_;
}

void log_t::SetMirror(boost::shared_ptr<receiver::log_file_t> mirror) {
  const std::lock_guard<std::mutex> guard(lock_);
  mirror_.swap(mirror);
}

void log_t::SetFilter(boost::shared_ptr<text_filter_t> filter) {
  const std::lock_guard<std::mutex> guard(lock_);
  filtered_.store(filter != nullptr, std::memory_order_relaxed);
  filter_.swap(filter);
}

void log_t::Write(level_t level, std::string_view name, std::string_view text) noexcept {
  if (!IsOpen())
    return;
  try {
    boost::shared_ptr<text_filter_t> filter;
    if (filtered_.load(std::memory_order_relaxed)) {
      const std::lock_guard<std::mutex> guard(lock_);
      filter = filter_;
    }
    const format_mode_t mode = mode_.load(std::memory_order_relaxed);
    const std::time_t now = std::time(nullptr);
    format::line_t line;
    line.level = level;
    line.depth = depth;
    line.threadId = monitoring::CurrentThreadId();
    line.time = now == static_cast<std::time_t>(-1) ? nullptr : &now;
    line.name = name;

    std::string lines;
    lines.reserve(text.size() + 64);
    for (;;) {
      const std::size_t end = text.find('\n');
      line.text = text.substr(0, end);
      if (filter == nullptr) {
        format::AppendLine(lines, mode, line);
      } else {
        const std::string filtered = filter->Apply(line.text);
        line.text = filtered;
        format::AppendLine(lines, mode, line);
      }
      if (end == std::string_view::npos)
        break;
      text.remove_prefix(end + 1);
      line.continuation = true;
    }
    if (together == nullptr || !together->Take(*this, lines))
      WriteLines(lines);
  } catch (...) {
    // Memory or the filter failed: the line is lost, and whoever logs goes on.
  }
}

void log_t::WriteLines(const std::string& lines) noexcept {
  try {
    const std::lock_guard<std::mutex> guard(lock_);
    WriteLinesLocked(lines);
    if (rotationEnabled_ && linesSinceCheck_ >= LinesBetweenChecks)
      CheckSizeLocked();
  } catch (...) {
    // A mutex that cannot be locked is a log that cannot be written.
  }
}

void log_t::WriteLinesLocked(const std::string& lines) noexcept {
  linesSinceCheck_ += static_cast<std::int32_t>(std::ranges::count(lines, '\n'));
  for (receiver::log_file_t* target : {receiver_.get(), mirror_.get()}) {
    if (target == nullptr)
      continue;
    try {
      target->WriteMany(lines);
    } catch (...) {
      // A full disk or a peer that is gone costs the lines, not the service.
    }
  }
}

void log_t::CheckSizeLocked() noexcept {
  linesSinceCheck_ = 0;
  if (receiver_ == nullptr)
    return;
  try {
    CheckLogSize(*receiver_, rotation_);
  } catch (const std::exception& failure) {
    try {
      const std::time_t now = std::time(nullptr);
      format::line_t line;
      line.level = level_t::Error;
      line.threadId = monitoring::CurrentThreadId();
      line.time = &now;
      std::string lines;
      const std::string text(failure.what());
      for (std::size_t start = 0; start <= text.size(); line.continuation = true) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        line.text = std::string_view(text).substr(start, end - start);
        format::AppendLine(lines, mode_.load(std::memory_order_relaxed), line);
        start = end + 1;
      }
      WriteLinesLocked(lines);
    } catch (...) {
      // No memory for the report.
    }
  }
}

void log_handle_t::Exception(level_t level, std::string_view text, const std::exception& exception) const noexcept {
  exc::LogException(*this, level, text, exception);
}

lines_together_t::lines_together_t() noexcept {
  if (together == nullptr)
    together = this;
}

lines_together_t::~lines_together_t() {
  if (together != this)
    return;
  together = nullptr;
  if (log_ != nullptr)
    log_->WriteLines(lines_);
}

bool lines_together_t::Take(log_t& log, const std::string& lines) {
  if (log_ == nullptr)
    log_ = &log;
  if (log_ != &log)
    return false;
  lines_ += lines;
  if (lines_.size() >= MostTogether) {
    log_->WriteLines(lines_);
    lines_.clear();
  }
  return true;
}

void receiver::log_file_t::WriteMany(std::string_view lines) {
  std::exception_ptr failure;
  while (!lines.empty()) {
    const std::size_t end = std::min(lines.find('\n'), lines.size() - 1) + 1;
    try {
      Write(lines.substr(0, end));
    } catch (...) {
      failure = std::current_exception();
    }
    lines.remove_prefix(end);
  }
  if (failure)
    std::rethrow_exception(failure);
}

log_scope_t::log_scope_t(const log_handle_t& log, std::string text) : log_(log), text_(std::move(text)), note_(text_) {
  log_.Info(text_);
  ChangeDepth(1);
}

log_scope_t::~log_scope_t() {
  if (finished_)
    return;
  Leave();
  log_.Info("%1 Failed.", text_);
}

void log_scope_t::Leave() noexcept {
  if (finished_)
    return;
  finished_ = true;
  note_.Close();
  ChangeDepth(-1);
}

void log_scope_t::Success() {
  Leave();
}

void log_scope_t::Success(std::string_view text) {
  Leave();
  log_.Info(text);
}

void log_scope_t::SuccessOk() {
  Leave();
  log_.Info("%1 ok.", text_);
}

quiet_log_scope_t::quiet_log_scope_t(const log_handle_t& log, const char* pattern, std::uint64_t first,
                                     std::uint64_t second) noexcept
    : log_(log), pattern_(pattern), first_(first), second_(second), note_(pattern, first, second) {}

quiet_log_scope_t::~quiet_log_scope_t() {
  if (finished_ || !log_.IsOpen())
    return;
  try {
    log_.WriteText(level_t::Info, exc::FormatText(pattern_, first_, second_) + " Failed.");
  } catch (...) {
    // Leaving a scope never throws.
  }
}

void quiet_log_scope_t::Success() noexcept {
  finished_ = true;
  note_.Close();
}

}  // namespace logging

namespace exc {

void LogException(const logging::log_handle_t& handle, logging::level_t level, std::string_view text,
                  const std::exception& exception) noexcept {
  if (!handle.IsOpen())
    return;
  try {
    const char* const what = exception.what();
    const auto* const own = dynamic_cast<const exc_base_t*>(&exception);
    std::string message(text);
    message += '\n';
    message += what == nullptr ? "Exception message is not available." : what;
    message += FormatText("\nAn exception was thrown from thread [%1].",
                          own == nullptr ? std::string("n/a") : std::to_string(own->ThreadId()));
    handle.WriteText(level, message);
  } catch (...) {
    // Memory ran out while a failure was told; the failure itself goes its way.
  }
}

}  // namespace exc
