// Each record as a line, for people or as CSV.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelvo-perflog/event_kinds.h"
#include "kelvo-perflog/log_reader.h"
#include "kelvo-perflog/operations.h"

namespace perflog {

/// What a line tells.
struct SLine {
  std::int64_t elapsed = 0;  ///< Nanoseconds since the first record.
  const SRecord& record;
  const SDetails& details;
  const std::optional<SOperation>& operation;  ///< That the record ends.
};

std::string TableHeading();
std::string TableLine(const SLine& line);
std::string CsvHeading();
std::string CsvLine(const SLine& line);

}  // namespace perflog
