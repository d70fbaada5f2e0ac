// Columns of text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace perflog {

/// Columns as wide as their widest cell, two blanks apart; those named in leftColumns begin at the left, all others end
/// at the right. Characters are bytes.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows, const std::vector<std::size_t>& leftColumns);

/// A number with so many digits behind the point.
std::string Fixed(double number, int digits);
/// Nanoseconds as microseconds.
std::string Microseconds(std::uint64_t nanoseconds);

}  // namespace perflog
