#include "service/udp_log_receiver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/log_setup.h"
#include "platform/text.h"
#include "transports/sockets/socket_ip.h"

namespace {

constexpr int PollMilliseconds = 5000;
constexpr std::uint32_t LargestPort = 65535;

[[noreturn]] void ThrowSocketError(const char* text) {
  const platform::error_t error = platform::SocketErrorFromErrno(errno);
  throw exc::win_sys_exc_t(text, error);
}

struct file_closer_t {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using output_t = std::unique_ptr<std::FILE, file_closer_t>;

output_t OpenOutput(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (descriptor < 0)
    return nullptr;
  output_t output(::fdopen(descriptor, "wt"));
  if (output == nullptr)
    ::close(descriptor);
  else
    // The mode ends by a signal as a rule, which must not cost the lines that came since the last flush.
    std::setvbuf(output.get(), nullptr, _IOLBF, BUFSIZ);
  return output;
}

bool WaitReadable(int socket) {
  pollfd state{socket, POLLIN, 0};
  const int count = ::poll(&state, 1, PollMilliseconds);
  if (count < 0 && errno != EINTR)
    ThrowSocketError("Select error.");
  return count > 0;
}

/// The next datagram as far as its announced size; an empty text when there is none.
std::string ReceivePending(int socket) {
  int pending = 0;
  if (::ioctl(socket, FIONREAD, &pending) != 0)
    ThrowSocketError("Connection aborted.");
  // An empty datagram announces nothing, and is taken away all the same: those behind it would never come.
  std::string datagram(static_cast<std::size_t>(pending), '\0');
  if (::recv(socket, datagram.data(), datagram.size(), MSG_DONTWAIT) < 0 && errno != EAGAIN && errno != EINTR)
    ThrowSocketError("Connection aborted.");
  return datagram;
}

}  // namespace

CUdpLogReceiverCfg ReadUdpLogReceiverCfg(const CCommandLine& commandLine) {
  CUdpLogReceiverCfg cfg;
  const std::string ownLog = logging::GetLogPath();
  cfg.logPath = ownLog.substr(0, ownLog.find_last_of('/') + 1) + "KelvoUDP.log";
  if (const auto path = commandLine.ValueOf("-log"))
    cfg.logPath = *path;
  if (const auto text = commandLine.ValueOf("-port")) {
    const std::optional<std::uint32_t> port = platform::ParseU32(*text);
    if (!port || *port > LargestPort)
      throw exc::runtime_exc_t("Invalid port value was read from command line: '%1'.", *text);
    cfg.port = static_cast<std::uint16_t>(*port);
  }
  return cfg;
}

void RunUdpLogReceiver(const CUdpLogReceiverCfg& cfg) {
  CSocketIP socket(false);
  socket.Bind(cfg.port);
  const output_t output = OpenOutput(cfg.logPath);
  if (output == nullptr)
    return;
  for (;;) {
    std::string datagram;
    if (WaitReadable(socket.Socket()))
      datagram = ReceivePending(socket.Socket());
    if (datagram.empty())
      std::fflush(output.get());
    else
      std::fputs(datagram.c_str(), output.get());
  }
}
