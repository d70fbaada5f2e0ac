#include "integration/support/namespaces.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace test {
namespace {

[[noreturn]] void Give(const char* what) {
  std::fprintf(stderr, "Tests need namespaces of their own: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

void WriteFile(const char* path, const std::string& text) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    Give(path);
  close(file);
}

void BringLoopbackUp() {
  const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  if (probe < 0 || ioctl(probe, SIOCGIFFLAGS, &request) != 0)
    Give("loopback");
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  if (ioctl(probe, SIOCSIFFLAGS, &request) != 0)
    Give("loopback");
  close(probe);
}

}  // namespace

void EnterNamespaces() {
  const uid_t uid = getuid();
  const gid_t gid = getgid();
  if (uid == 0) {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
      Give("unshare");
  } else {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0)
      Give("unshare");
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    Give("private mounts");
  // Behind walls the service has a view of its own, which follows what a test mounts.
  if (std::getenv("KELVO_TEST_WALLS") != nullptr && mount("none", "/", nullptr, MS_REC | MS_SHARED, nullptr) != 0)
    Give("shared mounts");
  if (mount("tmpfs", "/run", "tmpfs", 0, "mode=755") != 0)
    Give("/run");
  BringLoopbackUp();
}

}  // namespace test
