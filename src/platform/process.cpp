#include "platform/process.h"

#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <fstream>
#include <thread>

namespace platform {

std::uint32_t ProcessId() noexcept {
  return static_cast<std::uint32_t>(::getpid());
}

std::uint32_t ThreadId() noexcept {
  return static_cast<std::uint32_t>(::gettid());
}

void SetThreadName(std::string_view name) noexcept {
  std::array<char, 16> text{};
  name.copy(text.data(), text.size() - 1);
  ::pthread_setname_np(::pthread_self(), text.data());
}

std::string ExecutablePath() {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  return length < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

std::vector<std::string> ProcessArguments() {
  std::vector<std::string> arguments;
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  for (std::string argument; std::getline(file, argument, '\0');)
    arguments.push_back(argument);
  return arguments;
}

std::uint32_t ProcessorCount() noexcept {
  cpu_set_t set;
  if (::sched_getaffinity(0, sizeof(set), &set) == 0)
    return static_cast<std::uint32_t>(std::max(1, CPU_COUNT(&set)));
  // More processors than the set can tell.
  return std::max(1U, std::thread::hardware_concurrency());
}

std::uint32_t OsVersionCode() noexcept {
  constexpr std::uint32_t First = 100;
  utsname kernel{};
  if (::uname(&kernel) != 0)
    return 0;
  const char* const end = kernel.release + std::strlen(kernel.release);
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  const auto [rest, error] = std::from_chars(kernel.release, end, major);
  if (error != std::errc() || rest == end || *rest != '.' || std::from_chars(rest + 1, end, minor).ec != std::errc())
    return 0;
  return First * major + std::min(minor, First - 1);
}

}  // namespace platform
