// What each thread is doing, kept so that a crash report can tell it of all of them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace monitoring {

/// The open log scopes of one thread and the depth of its log lines. Written by its own thread alone, without a lock
/// and without allocation; read by any thread at any time, also from a signal handler. A reader that comes while the
/// owner writes may see a text that is half old and half new, but never reads outside the record.
class CThreadTrace {
 public:
  /// Scopes beyond this many are counted, their texts are not kept.
  static constexpr std::size_t MaxScopes = 24;
  /// Bytes of a text that are kept.
  static constexpr std::size_t MaxText = 160;

  /// Opens a scope; the text is copied, cut at MaxText bytes.
  void Push(std::string_view text) noexcept;
  /// Opens a scope without copying: the pattern must live as long as the process, first and second stand for %1 and %2.
  void Push(const char* pattern, std::uint64_t first, std::uint64_t second) noexcept;
  /// Closes the innermost scope.
  void Pop() noexcept;

  /// Levels of indentation of the owner's log lines.
  std::int32_t Depth() const noexcept { return depth_.load(std::memory_order_relaxed); }
  void SetDepth(std::int32_t depth) noexcept { depth_.store(depth, std::memory_order_relaxed); }

  /// Number of open scopes, those without a kept text included.
  std::size_t OpenScopes() const noexcept { return open_.load(std::memory_order_acquire); }
  /// Writes the text of an open scope, 0 the outermost, with a zero at its end, cut to size bytes in all; returns its
  /// length. 0 for a scope that is not open or not kept. Allocates nothing and takes no lock.
  std::size_t ScopeText(std::size_t index, char* buffer, std::size_t size) const noexcept;

  /// As when the record was new. By its owner.
  void Clear() noexcept;

 private:
  static constexpr std::size_t Words = MaxText / sizeof(std::uint64_t);

  struct scope_t {
    /// Null: the text stands in words.
    std::atomic<const char*> pattern{nullptr};
    std::atomic<std::uint64_t> first{0};
    std::atomic<std::uint64_t> second{0};
    std::atomic<std::uint32_t> length{0};
    std::atomic<std::uint64_t> words[Words] = {};
  };

  std::atomic<std::size_t> open_{0};
  std::atomic<std::int32_t> depth_{0};
  scope_t scopes_[MaxScopes];
};

/// One live thread. A record is used again for another thread after its own has ended, and never freed, so that
/// a crash handler may look at any of them at any moment.
class CThreadState {
 public:
  /// Bytes of a role that are kept.
  static constexpr std::size_t MaxRole = 95;

  /// False while the record waits for its next thread, or for its thread's start.
  bool IsLive() const noexcept { return live_.load(std::memory_order_acquire); }
  /// The kernel's ids; the parent is 0 for a thread that was not started through this system.
  std::uint32_t ThreadId() const noexcept { return threadId_.load(std::memory_order_relaxed); }
  std::uint32_t ParentId() const noexcept { return parentId_.load(std::memory_order_relaxed); }
  /// Zero-terminated; empty for a thread without a role, as the main thread.
  const char* Role() const noexcept { return role_; }
  const CThreadTrace& Trace() const noexcept { return trace_; }
  CThreadTrace& Trace() noexcept { return trace_; }
  /// The next record, null at the end.
  const CThreadState* Next() const noexcept { return next_; }

 private:
  friend class CThreadStatesCollection;

  /// Guarded by the collection's lock.
  bool taken_ = false;
  std::atomic<bool> live_{false};
  std::atomic<std::uint32_t> threadId_{0};
  std::atomic<std::uint32_t> parentId_{0};
  char role_[MaxRole + 1] = {};
  CThreadTrace trace_;
  CThreadState* next_ = nullptr;
};

/// A copy of a record for those who need not read it in a crash.
struct thread_info_t {
  std::uint32_t threadId = 0;
  std::uint32_t parentId = 0;
  std::string role;
  std::int32_t depth = 0;
  /// Outermost first.
  std::vector<std::string> scopes;
};

/// All live threads of the process. Its lock is taken at the start and at the end of a thread, never in between.
class CThreadStatesCollection {
 public:
  /// The process's collection. Never destroyed.
  static CThreadStatesCollection& Instance() noexcept;

  /// Makes the calling thread's record. Throws when memory runs out.
  CThreadState& Add(std::string_view role, std::uint32_t parentId);
  /// Sets a record aside for a thread that is still to be started; it is not live. Throws when memory runs out.
  CThreadState& Reserve(std::string_view role, std::uint32_t parentId);
  /// A reserved record becomes the calling thread's.
  void Begin(CThreadState& state) noexcept;
  /// Ends a record, or gives a reserved one back. By its own thread, or where none is any more.
  void Remove(CThreadState& state) noexcept;

  /// For a crash handler: the first record, the others by Next(). No lock; skip those that are not live.
  const CThreadState* First() const noexcept { return first_.load(std::memory_order_acquire); }
  /// Copies of all live records, under the lock.
  std::vector<thread_info_t> Snapshot() const;

 private:
  mutable std::mutex lock_;
  std::atomic<CThreadState*> first_{nullptr};
};

/// The calling thread's trace, null only when memory ran out or the thread is past its end. A thread without
/// a record gets one at its first call, without a role; it goes when the thread ends.
CThreadTrace* CurrentTrace() noexcept;
/// The calling thread's kernel id.
std::uint32_t CurrentThreadId() noexcept;

/// The record of a thread that is still to be started. Made by whoever starts it, who can tell of it when memory runs
/// out; the new thread could only end the process. Given back at its end where no thread took it. One owner at a time;
/// the constructor throws std::bad_alloc.
class thread_record_t {
 public:
  thread_record_t(std::string_view role, std::uint32_t parentId)
      : state_(&CThreadStatesCollection::Instance().Reserve(role, parentId)) {}
  thread_record_t(const thread_record_t&) = delete;
  thread_record_t& operator=(const thread_record_t&) = delete;
  ~thread_record_t() {
    if (state_ != nullptr)
      CThreadStatesCollection::Instance().Remove(*state_);
  }

 private:
  friend class thread_registration_t;
  CThreadState* state_;
};

/// Takes the record for the calling thread, in place of one that it has, and removes it when the scope ends. On the
/// thread's own stack, outermost.
class thread_registration_t {
 public:
  explicit thread_registration_t(thread_record_t& record) noexcept;
  thread_registration_t(const thread_registration_t&) = delete;
  thread_registration_t& operator=(const thread_registration_t&) = delete;
  ~thread_registration_t();
};

/// A log scope's note in the calling thread's trace. On one thread's stack; closed by Close or its end, innermost
/// first.
class scope_note_t {
 public:
  explicit scope_note_t(std::string_view text) noexcept : trace_(CurrentTrace()) {
    if (trace_ != nullptr)
      trace_->Push(text);
  }
  scope_note_t(const char* pattern, std::uint64_t first, std::uint64_t second) noexcept : trace_(CurrentTrace()) {
    if (trace_ != nullptr)
      trace_->Push(pattern, first, second);
  }
  scope_note_t(const scope_note_t&) = delete;
  scope_note_t& operator=(const scope_note_t&) = delete;
  ~scope_note_t() { Close(); }

  /// Any number of times.
  void Close() noexcept {
    if (trace_ != nullptr)
      trace_->Pop();
    trace_ = nullptr;
  }

 private:
  CThreadTrace* trace_;
};

}  // namespace monitoring
