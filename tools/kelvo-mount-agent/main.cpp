// kelvo-mount-agent: offers the files of a folder as a backup.
#include <sys/signalfd.h>

#include <csignal>
#include <exception>
#include <iostream>

#include "kelvo-mount-agent/command_line.h"
#include "platform/location.h"

int main(int argc, char** argv) {
  try {
    // Before any thread is there, so that none of them takes the signals.
    sigset_t ending;
    ::sigemptyset(&ending);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
      ::sigaddset(&ending, number);
    ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const platform::descriptor_t stop(::signalfd(-1, &ending, SFD_CLOEXEC));
    if (!stop.IsOpen()) {
      std::cerr << "kelvo-mount-agent: Signals cannot be waited for.\n";
      return mount_agent::Failed;
    }
    return mount_agent::Run({argv + 1, argv + argc}, stop.Get(), std::cout, std::cerr);
  } catch (const std::exception& failure) {
    std::cerr << "kelvo-mount-agent: " << failure.what() << '\n';
    return mount_agent::Failed;
  }
}
