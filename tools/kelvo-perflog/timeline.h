// The time of records from the first one on.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>

namespace perflog {

/// A time stamp before the last one means that the machine was started anew in between: time goes on without the pause,
/// whose length nobody knows. One thread.
class CTimeline {
 public:
  /// Takes each time stamp in the log's order; true when the machine was started anew before this one.
  bool Add(std::int64_t timestamp) noexcept {
    const bool isNewStart = last_ && timestamp < *last_;
    const std::int64_t step = last_ && !isNewStart ? timestamp - *last_ : 0;
    elapsed_ = step > std::numeric_limits<std::int64_t>::max() - elapsed_ ? std::numeric_limits<std::int64_t>::max()
                                                                          : elapsed_ + step;
    last_ = timestamp;
    starts_ += isNewStart ? 1 : 0;
    return isNewStart;
  }

  /// Nanoseconds from the first record to the last one.
  std::int64_t Elapsed() const noexcept { return elapsed_; }
  /// Starts of the machine between records.
  std::uint64_t Starts() const noexcept { return starts_; }

 private:
  std::optional<std::int64_t> last_;
  std::int64_t elapsed_ = 0;
  std::uint64_t starts_ = 0;
};

}  // namespace perflog
