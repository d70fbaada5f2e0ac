#include "platform/pipe_wait.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace platform {
namespace {

/// More than anyone waits for; what is above it ends no wait.
constexpr std::size_t MaxCancels = 8;

int PollTimeout(const deadline_t& deadline) noexcept {
  if (deadline.monotonicNs == deadline_t::NeverNs)
    return -1;
  return static_cast<int>(std::min<std::uint32_t>(deadline.RemainingMs(), INT_MAX));
}

}  // namespace

error_t WaitForReadiness(int socket, short events, const pipe_wait_t& wait) noexcept {
  const std::size_t cancels = std::min(wait.cancels.size(), MaxCancels);
  std::array<pollfd, MaxCancels + 1> entries{};
  entries[0] = {socket, events, 0};
  for (std::size_t i = 0; i < cancels; ++i)
    entries[i + 1] = {wait.cancels[i], POLLIN, 0};
  for (;;) {
    const bool over = wait.deadline.IsOver();
    const int ready = ::poll(entries.data(), cancels + 1, over ? 0 : PollTimeout(wait.deadline));
    if (ready < 0 && errno != EINTR)
      return LastError();
    if (ready > 0)
      return entries[0].revents != 0 ? error::Success : error::OperationAborted;
    if (over)
      return error::WaitTimeout;
  }
}

}  // namespace platform
