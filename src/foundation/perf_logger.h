// The performance log: a stream of small records with time stamps, appended to a file.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

#include "foundation/perf_event_arg.h"
#include "foundation/perf_events.h"

namespace perf {

/// Gathers records in a buffer of fixed size and appends the buffer to the file when the next record does not fit.
/// Never throws once constructed, and never stops whoever calls it: what cannot be written is lost. Any thread; the
/// lock protects all of it, and is held while the buffer goes to the disk. The order of records is that of their times.
class CPerfLogger {
 public:
  /// path: of the file; its folder is made at the first flush, if it is missing. bufferSize: bytes, any number; when
  /// there is no memory for them, which is logged, every record is dropped.
  CPerfLogger(std::string path, std::size_t bufferSize);
  CPerfLogger(const CPerfLogger&) = delete;
  CPerfLogger& operator=(const CPerfLogger&) = delete;
  /// Flushes.
  ~CPerfLogger();

  /// Adds a record. One that would not fit into the empty buffer is dropped in silence. data may be null when size is
  /// 0.
  void WriteEvent(std::uint32_t eventType, std::uint32_t size, const void* data) noexcept;
  /// The same with the bytes of the arguments one after the other.
  void WriteEvent(std::uint32_t eventType, std::initializer_list<const CPerfEventArgBase*> args) noexcept;
  /// Appends what the buffer holds to the file, and empties it, whether that succeeded or not: a failure is logged.
  /// Where a part of it was written, the file is cut back to whole records.
  void Flush() noexcept;
  /// Flushes and gives the buffer back; what is written afterwards is dropped.
  void Close() noexcept;

 private:
  /// Where the data of a record of this size goes; null when it is dropped.
  std::uint8_t* AddHeaderLocked(std::uint32_t eventType, std::uint64_t size) noexcept;
  void FlushLocked() noexcept;
  void CreateFolderLocked() noexcept;

  const std::string path_;
  std::mutex lock_;
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::size_t size_ = 0;
  std::size_t used_ = 0;
  bool folderMade_ = false;
};

namespace impl {
inline constinit std::atomic<CPerfLogger*> processLog{nullptr};
}

/// Whether the process writes a performance log. One load: who has to gather data for an event asks first.
inline bool IsOn() noexcept {
  return impl::processLog.load(std::memory_order_relaxed) != nullptr;
}

/// Starts the process's log, in place of one that runs. Throws when memory runs out. StartLog and StopLog are for one
/// thread at a time; any others may write events meanwhile.
void StartLog(const std::string& path, std::size_t bufferSize);
/// Writes what is left and ends the log; events that still come are dropped. Any number of times.
void StopLog() noexcept;
/// Writes what the process's log holds, if there is one. Any thread.
void FlushLog() noexcept;

/// Adds an event to the process's log; dropped when there is none.
void WriteEvent(std::uint32_t eventType, std::uint32_t size, const void* data) noexcept;
void WriteEvent(std::uint32_t eventType, std::initializer_list<const CPerfEventArgBase*> args) noexcept;
/// An event whose data is one of the packed records of perf_events.h.
template <typename Record>
void WriteRecord(std::uint32_t eventType, const Record& record) noexcept {
  static_assert(alignof(Record) == 1 && std::is_trivially_copyable_v<Record>);
  WriteEvent(eventType, sizeof(record), &record);
}

}  // namespace perf
