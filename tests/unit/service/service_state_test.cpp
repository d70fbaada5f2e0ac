#include "service/service_state.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "support/temp_dir.h"

namespace {

/// The manager's end of the notifications.
class Manager {
 public:
  explicit Manager(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;
  ~Manager() { ::close(socket_); }

  std::string Receive() const {
    char text[256] = {};
    const ssize_t length = ::recv(socket_, text, sizeof(text), MSG_DONTWAIT);
    return {text, length < 0 ? 0 : static_cast<std::size_t>(length)};
  }

 private:
  int socket_;
};

TEST(ServiceState, TheManagerIsToldEachState) {
  const test::TempDir folder;
  const Manager manager(folder / "notify");
  const test::ScopedEnvironment environment("NOTIFY_SOCKET", folder / "notify");
  ReportServiceState(service_state_t::StartPending);
  EXPECT_EQ(manager.Receive(), "STATUS=Starting.");
  ReportServiceState(service_state_t::Running);
  EXPECT_EQ(manager.Receive(), "READY=1\nSTATUS=Ready to process incoming calls.");
  ReportServiceState(service_state_t::StopPending);
  EXPECT_EQ(manager.Receive(), "STOPPING=1\nSTATUS=Stopping.");
  ReportServiceState(service_state_t::Stopped);
  EXPECT_EQ(manager.Receive(), "STATUS=Stopped.");
  EXPECT_EQ(manager.Receive(), "");
}

TEST(StopSignals, AStopThatComesEarlyIsKept) {
  for (const int number : {SIGTERM, SIGINT}) {
    sigset_t before;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
    const CStopSignals signals;
    ::pthread_kill(::pthread_self(), number);
    signals.Wait();
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
}

}  // namespace
