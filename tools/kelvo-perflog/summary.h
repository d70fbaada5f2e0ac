// What the events of a log come to.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kelvo-perflog/event_kinds.h"
#include "kelvo-perflog/log_reader.h"
#include "kelvo-perflog/operations.h"
#include "kelvo-perflog/timeline.h"

namespace perflog {

/// Nanoseconds; each is the least measured value that at least this share of all does not exceed.
struct SPercentiles {
  std::uint64_t p50 = 0;
  std::uint64_t p90 = 0;
  std::uint64_t p99 = 0;
  std::uint64_t p999 = 0;
  std::uint64_t max = 0;
};

/// Nothing for no values. Sorts them.
std::optional<SPercentiles> PercentilesOf(std::vector<std::uint64_t>& values);

/// Takes the records one by one. One thread.
class CSummary {
 public:
  void Add(const SRecord& record, const SDetails& details, const std::optional<SOperation>& operation);

  /// Whole lines. Both want what was gathered beside it.
  std::string Text(const CTimeline& timeline, const COperations& operations);
  nlohmann::ordered_json Json(const CTimeline& timeline, const COperations& operations);

 private:
  struct SEventSum {
    std::uint64_t count = 0;
    std::optional<std::uint64_t> failed;
    std::optional<std::uint64_t> bytes;
    std::vector<std::uint64_t> durations;  ///< Nanoseconds.
  };
  struct SBusySum {
    double busy = 0;    ///< Nanoseconds.
    double period = 0;  ///< Nanoseconds.
    std::uint32_t maxPermille = 0;
  };

  std::string EventTable(double seconds);
  std::string BusyTable() const;

  std::uint64_t count_ = 0;
  std::set<std::uint32_t> threads_;
  std::map<std::uint32_t, SEventSum> events_;
  std::map<std::uint32_t, SBusySum> busy_;
};

}  // namespace perflog
