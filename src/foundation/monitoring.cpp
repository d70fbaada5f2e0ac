#include "foundation/monitoring.h"

#include <pthread.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "platform/process.h"

namespace monitoring {

namespace {

thread_local constinit CThreadState* currentState = nullptr;
/// Past its own end a thread gets no record any more.
thread_local constinit bool threadEnded = false;
thread_local constinit std::uint32_t currentThreadId = 0;

void EndRecord(void*) noexcept {
  threadEnded = true;
  if (currentState != nullptr)
    CThreadStatesCollection::Instance().Remove(*currentState);
  currentState = nullptr;
}

/// Has EndRecord called at the end of the calling thread. Not by a destructor of something thread_local: the C library
/// ends the process when there is no memory to note one.
bool CallAtThreadEnd() noexcept {
  static const std::optional<pthread_key_t> key = [] {
    pthread_key_t made{};
    return ::pthread_key_create(&made, EndRecord) == 0 ? std::optional(made) : std::nullopt;
  }();
  return key.has_value() && ::pthread_setspecific(*key, &currentState) == 0;
}

CThreadTrace* MakeRecordLate() noexcept {
  if (threadEnded || !CallAtThreadEnd())
    return nullptr;
  try {
    currentState = &CThreadStatesCollection::Instance().Add({}, 0);
    return &currentState->Trace();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

/// Text cut at the end of a buffer.
class cut_text_t {
 public:
  cut_text_t(char* buffer, std::size_t size) noexcept : buffer_(buffer), size_(size) {}

  void Add(char byte) noexcept {
    if (length_ + 1 < size_)
      buffer_[length_++] = byte;
  }
  void Add(std::uint64_t number) noexcept {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof(digits), number).ptr;
    for (const char* digit = digits; digit != end; ++digit)
      Add(*digit);
  }
  std::size_t Finish() noexcept {
    if (size_ > 0)
      buffer_[length_] = '\0';
    return length_;
  }

 private:
  char* const buffer_;
  const std::size_t size_;
  std::size_t length_ = 0;
};

void AddPattern(cut_text_t& text, const char* pattern, std::uint64_t first, std::uint64_t second) noexcept {
  for (; *pattern != '\0'; ++pattern) {
    if (pattern[0] == '%' && (pattern[1] == '1' || pattern[1] == '2')) {
      text.Add(pattern[1] == '1' ? first : second);
      ++pattern;
    } else {
      text.Add(*pattern);
    }
  }
}

}  // namespace

void CThreadTrace::Push(std::string_view text) noexcept {
  const std::size_t index = open_.load(std::memory_order_relaxed);
  if (index < MaxScopes) {
    scope_t& scope = scopes_[index];
    const std::size_t length = std::min(text.size(), MaxText);
    scope.pattern.store(nullptr, std::memory_order_relaxed);
    scope.length.store(static_cast<std::uint32_t>(length), std::memory_order_relaxed);
    for (std::size_t start = 0; start < length; start += sizeof(std::uint64_t)) {
      std::uint64_t word = 0;
      std::memcpy(&word, text.data() + start, std::min(sizeof(word), length - start));
      scope.words[start / sizeof(word)].store(word, std::memory_order_relaxed);
    }
  }
  open_.store(index + 1, std::memory_order_release);
}

void CThreadTrace::Push(const char* pattern, std::uint64_t first, std::uint64_t second) noexcept {
  const std::size_t index = open_.load(std::memory_order_relaxed);
  if (index < MaxScopes) {
    scope_t& scope = scopes_[index];
    scope.first.store(first, std::memory_order_relaxed);
    scope.second.store(second, std::memory_order_relaxed);
    scope.pattern.store(pattern, std::memory_order_relaxed);
  }
  open_.store(index + 1, std::memory_order_release);
}

void CThreadTrace::Pop() noexcept {
  const std::size_t open = open_.load(std::memory_order_relaxed);
  if (open > 0)
    open_.store(open - 1, std::memory_order_release);
}

std::size_t CThreadTrace::ScopeText(std::size_t index, char* buffer, std::size_t size) const noexcept {
  cut_text_t text(buffer, size);
  if (index < std::min(OpenScopes(), MaxScopes)) {
    const scope_t& scope = scopes_[index];
    if (const char* const pattern = scope.pattern.load(std::memory_order_relaxed)) {
      AddPattern(text, pattern, scope.first.load(std::memory_order_relaxed),
                 scope.second.load(std::memory_order_relaxed));
    } else {
      const std::size_t length = std::min<std::size_t>(scope.length.load(std::memory_order_relaxed), MaxText);
      for (std::size_t i = 0; i < length; ++i) {
        const std::uint64_t word = scope.words[i / sizeof(word)].load(std::memory_order_relaxed);
        char bytes[sizeof(word)];
        std::memcpy(bytes, &word, sizeof(word));
        text.Add(bytes[i % sizeof(word)]);
      }
    }
  }
  return text.Finish();
}

void CThreadTrace::Clear() noexcept {
  open_.store(0, std::memory_order_release);
  depth_.store(0, std::memory_order_relaxed);
}

CThreadStatesCollection& CThreadStatesCollection::Instance() noexcept {
  // Threads end after the destructors of static objects have run.
  alignas(CThreadStatesCollection) static unsigned char place[sizeof(CThreadStatesCollection)];
  static auto* const collection = new (place) CThreadStatesCollection;
  return *collection;
}

CThreadState& CThreadStatesCollection::Add(std::string_view role, std::uint32_t parentId) {
  CThreadState& state = Reserve(role, parentId);
  Begin(state);
  return state;
}

CThreadState& CThreadStatesCollection::Reserve(std::string_view role, std::uint32_t parentId) {
  const std::lock_guard<std::mutex> guard(lock_);
  CThreadState* state = first_.load(std::memory_order_relaxed);
  while (state != nullptr && state->taken_)
    state = state->next_;
  const bool isNew = state == nullptr;
  if (isNew)
    state = new CThreadState;
  const std::size_t length = std::min(role.size(), CThreadState::MaxRole);
  std::copy_n(role.data(), length, state->role_);
  state->role_[length] = '\0';
  state->parentId_.store(parentId, std::memory_order_relaxed);
  state->trace_.Clear();
  state->taken_ = true;
  if (isNew) {
    state->next_ = first_.load(std::memory_order_relaxed);
    first_.store(state, std::memory_order_release);
  }
  return *state;
}

void CThreadStatesCollection::Begin(CThreadState& state) noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  state.threadId_.store(CurrentThreadId(), std::memory_order_relaxed);
  state.live_.store(true, std::memory_order_release);
}

void CThreadStatesCollection::Remove(CThreadState& state) noexcept {
  const std::lock_guard<std::mutex> guard(lock_);
  state.taken_ = false;
  state.live_.store(false, std::memory_order_release);
}

std::vector<thread_info_t> CThreadStatesCollection::Snapshot() const {
  const std::lock_guard<std::mutex> guard(lock_);
  std::vector<thread_info_t> threads;
  for (const CThreadState* state = First(); state != nullptr; state = state->Next()) {
    if (!state->IsLive())
      continue;
    thread_info_t info;
    info.threadId = state->ThreadId();
    info.parentId = state->ParentId();
    info.role = state->Role();
    info.depth = state->Trace().Depth();
    const std::size_t open = std::min(state->Trace().OpenScopes(), CThreadTrace::MaxScopes);
    for (std::size_t i = 0; i < open; ++i) {
      char text[CThreadTrace::MaxText + 1];
      info.scopes.emplace_back(text, state->Trace().ScopeText(i, text, sizeof(text)));
    }
    threads.push_back(std::move(info));
  }
  return threads;
}

CThreadTrace* CurrentTrace() noexcept {
  CThreadState* const state = currentState;
  return state != nullptr ? &state->Trace() : MakeRecordLate();
}

std::uint32_t CurrentThreadId() noexcept {
  if (currentThreadId == 0)
    currentThreadId = platform::ThreadId();
  return currentThreadId;
}

thread_registration_t::thread_registration_t(thread_record_t& record) noexcept {
  CThreadState* const early = std::exchange(currentState, std::exchange(record.state_, nullptr));
  CThreadStatesCollection::Instance().Begin(*currentState);
  if (early != nullptr)
    CThreadStatesCollection::Instance().Remove(*early);
}

thread_registration_t::~thread_registration_t() {
  if (currentState != nullptr)
    CThreadStatesCollection::Instance().Remove(*currentState);
  currentState = nullptr;
}

}  // namespace monitoring
