// kelvo-mount-agent's arguments, and what it does with them.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace mount_agent {

inline constexpr int Succeeded = 0;
inline constexpr int Failed = 1;
inline constexpr int BadUsage = 2;

/// Serves until the descriptor `stop` is readable. Tells on `out` that it serves, in one line and at once, and on `err`
/// what goes wrong. Returns the exit code.
int Run(const std::vector<std::string>& arguments, int stop, std::ostream& out, std::ostream& err);

}  // namespace mount_agent
