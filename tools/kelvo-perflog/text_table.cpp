#include "kelvo-perflog/text_table.h"

#include <algorithm>
#include <cstdio>

namespace perflog {

std::string FormatTable(const std::vector<std::vector<std::string>>& rows,
                        const std::vector<std::size_t>& leftColumns) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool isLeft = std::find(leftColumns.begin(), leftColumns.end(), i) != leftColumns.end();
      const std::string blanks(widths[i] - row[i].size(), ' ');
      line += (i == 0 ? "" : "  ") + (isLeft ? row[i] + blanks : blanks + row[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

std::string Fixed(double number, int digits) {
  char text[400];
  std::snprintf(text, sizeof(text), "%.*f", digits, number);
  return text;
}

std::string Microseconds(std::uint64_t nanoseconds) {
  return Fixed(static_cast<double>(nanoseconds) / 1000, 1);
}

}  // namespace perflog
