// The running process and its threads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

std::uint32_t ProcessId() noexcept;

/// The kernel's id of the calling thread, as `ps` and debuggers show it.
std::uint32_t ThreadId() noexcept;

/// Names the calling thread for `ps` and debuggers; what is past 15 bytes is cut.
void SetThreadName(std::string_view name) noexcept;

/// The path of the running program; empty when the system does not tell it.
std::string ExecutablePath();

/// The arguments that the program was started with, its name first; empty when the system does not tell them.
std::vector<std::string> ProcessArguments();

/// The processors that the process may run on, at least 1.
std::uint32_t ProcessorCount() noexcept;

/// The kernel's version as one number: 100 times the first part and the second, so that 5.10 is 510; 0 when the system
/// does not tell it.
std::uint32_t OsVersionCode() noexcept;

}  // namespace platform
