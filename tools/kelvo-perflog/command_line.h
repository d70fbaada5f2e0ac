// kelvo-perflog's arguments, and what it does with them.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace perflog {

inline constexpr int Succeeded = 0;
inline constexpr int Failed = 1;
inline constexpr int BadUsage = 2;

/// Reads the log, or `in` for "-", prints to `out` and tells on `err` what goes wrong. Of a damaged log all is printed
/// that stands before the damage, and the code is Failed. Returns the exit code.
int Run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace perflog
