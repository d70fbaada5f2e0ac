#include "foundation/debug_string_log.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "foundation/write_all.h"

namespace logging::receiver {

namespace {

/// A reader of standard error that has stopped reading must not stop the service.
void WriteDebugOutput(std::string_view line) noexcept {
  while (!line.empty()) {
    pollfd state{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&state, 1, 0) != 1 || (state.revents & POLLOUT) == 0)
      return;
    // A pipe that is writable takes this much without waiting.
    const std::string_view piece = line.substr(0, PIPE_BUF);
    if (io::WriteAll(STDERR_FILENO, piece) != platform::error::Success)
      return;
    line.remove_prefix(piece.size());
  }
}

}  // namespace

COutputDebugStringLog::COutputDebugStringLog(std::function<udp_copy_settings_t()> readSettings)
    : readSettings_(std::move(readSettings)) {}

COutputDebugStringLog::~COutputDebugStringLog() {
  if (socket_ >= 0)
    ::close(socket_);
}

void COutputDebugStringLog::OpenCopy() {
  tried_ = true;
  socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket_ < 0)
    return;
  const udp_copy_settings_t settings = readSettings_();
  target_.sin_family = AF_INET;
  target_.sin_port = htons(settings.port);
  copies_ = settings.enabled && ::inet_pton(AF_INET, settings.host.c_str(), &target_.sin_addr) == 1;
}

void COutputDebugStringLog::Write(std::string_view line) {
  WriteDebugOutput(line);
  if (!tried_)
    OpenCopy();
  if (!copies_)
    return;
  ::sendto(socket_, line.data(), line.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&target_),
           sizeof(target_));
}

void COutputDebugStringLog::Compress(util::zip_writer_t&, const std::function<void()>&) {}

}  // namespace logging::receiver
