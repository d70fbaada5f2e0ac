// READs and WRITEs, put together from their two events.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "kelvo-perflog/event_kinds.h"
#include "kelvo-perflog/log_reader.h"

namespace perflog {

/// A READ or WRITE that began and ended in the log.
struct SOperation {
  bool isRead = false;
  bool success = false;
  std::uint64_t bytes = 0;  ///< Asked for.
  std::int64_t begin = 0;   ///< Time stamps, nanoseconds.
  std::int64_t end = 0;
};

/// One kind of operations whose other event is not in the log.
struct SUnpaired {
  std::uint64_t begins = 0;
  std::uint64_t ends = 0;
};

/// A thread has one READ or WRITE at a time: an end belongs to the last begin of its thread, when both name the same
/// place of the same file. One thread.
class COperations {
 public:
  /// Takes each record of the log in its order; the operation that it ends, if it does.
  std::optional<SOperation> Add(const SRecord& record, const SDetails& details);
  /// The machine was started anew: nothing that is open will end.
  void Forget();
  /// Those whose other event has not come, so far.
  SUnpaired Unpaired(bool isRead) const;

 private:
  struct SBegin {
    std::uint64_t fid;
    std::uint64_t offset;
    std::uint64_t bytes;
    std::int64_t time;
  };
  /// Thread, and whether it is a READ.
  using key_t = std::pair<std::uint32_t, bool>;

  std::map<key_t, SBegin> open_;
  SUnpaired reads_;
  SUnpaired writes_;
};

}  // namespace perflog
