// Requests for memory that are counted and refused. A test program that uses this gets an operator new of its own.
#pragma once

#include <cstddef>

namespace test {

/// Of the calling thread so far.
std::size_t MemoryRequests() noexcept;

/// While it lives, one request for memory of the thread that made it is refused: after so many that are granted. One at
/// a time.
class RefusedRequest {
 public:
  explicit RefusedRequest(std::size_t granted) noexcept;
  RefusedRequest(const RefusedRequest&) = delete;
  RefusedRequest& operator=(const RefusedRequest&) = delete;
  ~RefusedRequest();

  /// Whether there were so many requests. On the same thread.
  bool HasHappened() const noexcept;
};

/// Calls attempt(granted) with one more request granted each time, until one has come to its end without a refusal.
/// `attempt` makes the RefusedRequest and returns its HasHappened.
template <typename Attempt>
void UntilNoneIsRefused(const Attempt& attempt) {
  for (std::size_t granted = 0; attempt(granted); ++granted) {
  }
}

}  // namespace test
