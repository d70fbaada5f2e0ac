#include "foundation/perf_logger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "foundation/create_folders.h"
#include "foundation/log.h"
#include "foundation/monitoring.h"
#include "foundation/write_all.h"
#include "platform/futex.h"

namespace perf {
namespace {

/// Appends all of it or, as far as the file can be cut, nothing.
platform::error_t AppendToFile(const std::string& path, std::string_view bytes) noexcept {
  // A pipe that nobody reads must not hold up whoever flushes.
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600);
  if (file < 0)
    return platform::LastError();
  const off_t end = ::lseek(file, 0, SEEK_END);
  const platform::error_t failure = io::WriteAll(file, bytes);
  // The start of a record without its rest would make all that follows unreadable. What cannot be cut stays.
  if (failure != platform::error::Success && end >= 0) [[maybe_unused]]
    const int ignored = ::ftruncate(file, end);
  ::close(file);
  return failure;
}

/// Every logger that the process had: a thread may still be about to use one.
std::vector<std::unique_ptr<CPerfLogger>>& ProcessLogs() {
  static auto& logs = *new std::vector<std::unique_ptr<CPerfLogger>>;
  return logs;
}

}  // namespace

CPerfLogger::CPerfLogger(std::string path, std::size_t bufferSize)
    : path_(std::move(path)), buffer_(new (std::nothrow) std::uint8_t[bufferSize]) {
  if (buffer_ != nullptr) {
    size_ = bufferSize;
  } else {
    g_log.Warning("There is no memory for the buffer of the performance log, %1 bytes. Its events are lost.",
                  bufferSize);
  }
}

CPerfLogger::~CPerfLogger() {
  Close();
}

std::uint8_t* CPerfLogger::AddHeaderLocked(std::uint32_t eventType, std::uint64_t size) noexcept {
  // Taken before a flush, which belongs to what the event measures no more than this lock does.
  const std::int64_t now = platform::MonotonicNanoseconds();
  const std::uint64_t total = sizeof(record_header_t) + size;
  if (size > std::numeric_limits<std::uint32_t>::max() || total > size_)
    return nullptr;
  if (total > size_ - used_)
    FlushLocked();
  const record_header_t header{now, eventType, static_cast<std::uint32_t>(size), monitoring::CurrentThreadId()};
  std::uint8_t* const record = buffer_.get() + used_;
  std::memcpy(record, &header, sizeof(header));
  used_ += total;
  return record + sizeof(header);
}

void CPerfLogger::WriteEvent(std::uint32_t eventType, std::uint32_t size, const void* data) noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  std::uint8_t* const place = AddHeaderLocked(eventType, size);
  if (place != nullptr && size != 0)
    std::memcpy(place, data, size);
}

void CPerfLogger::WriteEvent(std::uint32_t eventType, std::initializer_list<const CPerfEventArgBase*> args) noexcept {
  std::uint64_t size = 0;
  for (const CPerfEventArgBase* const arg : args)
    size += arg->Size();
  const std::lock_guard<std::mutex> guard(lock_);
  std::uint8_t* place = AddHeaderLocked(eventType, size);
  if (place == nullptr)
    return;
  for (const CPerfEventArgBase* const arg : args) {
    if (arg->Size() != 0)
      std::memcpy(place, arg->Data(), arg->Size());
    place += arg->Size();
  }
}

void CPerfLogger::Flush() noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  FlushLocked();
}

void CPerfLogger::Close() noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  if (buffer_ == nullptr)
    return;
  FlushLocked();
  buffer_.reset();
  size_ = 0;
}

void CPerfLogger::FlushLocked() noexcept {
  if (!std::exchange(folderMade_, true))
    CreateFolderLocked();
  if (used_ == 0)
    return;
  const auto* const bytes = reinterpret_cast<const char*>(buffer_.get());
  const platform::error_t failure = AppendToFile(path_, {bytes, used_});
  used_ = 0;
  if (failure == platform::error::Success)
    return;
  try {
    throw exc::win_sys_exc_t(exc::FormatText("Cannot write to file [%1].", path_), failure);
  } catch (const std::exception& cause) {
    g_log.Warning("Unable to flush performance log data. Perflog buffer will be erased, data will be lost.", cause);
  }
}

void CPerfLogger::CreateFolderLocked() noexcept {
  try {
    io::CreateFolders(std::filesystem::path(path_).parent_path());
  } catch (const std::exception& failure) {
    g_log.Error("Performance logger failed to create directory.", failure);
  }
}

void StartLog(const std::string& path, std::size_t bufferSize) {
  StopLog();
  auto& logs = ProcessLogs();
  logs.push_back(std::make_unique<CPerfLogger>(path, bufferSize));
  impl::processLog.store(logs.back().get(), std::memory_order_release);
}

void StopLog() noexcept {
  if (CPerfLogger* const log = impl::processLog.exchange(nullptr, std::memory_order_acq_rel))
    log->Close();
}

void FlushLog() noexcept {
  if (CPerfLogger* const log = impl::processLog.load(std::memory_order_acquire))
    log->Flush();
}

void WriteEvent(std::uint32_t eventType, std::uint32_t size, const void* data) noexcept {
  if (CPerfLogger* const log = impl::processLog.load(std::memory_order_acquire))
    log->WriteEvent(eventType, size, data);
}

void WriteEvent(std::uint32_t eventType, std::initializer_list<const CPerfEventArgBase*> args) noexcept {
  if (CPerfLogger* const log = impl::processLog.load(std::memory_order_acquire))
    log->WriteEvent(eventType, args);
}

}  // namespace perf
