// A picture of how long READs and WRITEs took over time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelvo-perflog/operations.h"

namespace perflog {

/// Gathers operations and draws them as SVG: a panel for each kind, time to the right, time taken upwards on a
/// logarithmic scale; darker where more operations lie, with the median and the 99th percentile of each moment as
/// lines. The size of the picture does not depend on that of the log. One thread.
class CPlot {
 public:
  /// elapsed: nanoseconds since the first record, at the end of the operation.
  void Add(const SOperation& operation, std::int64_t elapsed);
  /// The whole document. title: any text.
  std::string Svg(const std::string& title) const;

 private:
  struct SPoint {
    std::int64_t elapsed;
    std::int64_t duration;  ///< Nanoseconds.
  };
  class CPanel;

  std::vector<SPoint> reads_;
  std::vector<SPoint> writes_;
};

}  // namespace perflog
