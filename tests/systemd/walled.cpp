// walled WALLS PROGRAM [ARGUMENT…]: runs a program behind the walls of the service's unit, in the place of itself: with
// the filters of system calls and the capabilities that record_walls took from a running service, without new
// privileges, in a read-only view of the machine without homes and disks. /tmp, where tests keep their state, stays
// writable, and the account stays root: without capabilities that is an account like any other.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int Failed = 126;

struct SWalls {
  std::uint64_t capabilities = 0;
  std::vector<std::vector<sock_filter>> filters;  ///< The oldest first.
};

[[noreturn]] void Give(const std::string& what) {
  std::fprintf(stderr, "walled: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(Failed);
}

std::vector<sock_filter> FilterOf(const std::string& line) {
  std::vector<sock_filter> filter(line.size() / (2 * sizeof(sock_filter)));
  auto* const bytes = reinterpret_cast<unsigned char*>(filter.data());
  for (std::size_t i = 0; i < filter.size() * sizeof(sock_filter); ++i)
    bytes[i] = static_cast<unsigned char>(std::stoul(line.substr(2 * i, 2), nullptr, 16));
  return filter;
}

SWalls ReadWalls(const char* path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line))
    Give(path);
  SWalls walls;
  walls.capabilities = std::stoull(line, nullptr, 16);
  while (std::getline(file, line))
    walls.filters.push_back(FilterOf(line));
  if (walls.filters.empty())
    Give(path);
  return walls;
}

bool IsBelow(std::string_view path, std::string_view folder) {
  return path == folder || (path.starts_with(folder) && path.substr(folder.size()).starts_with('/'));
}

/// Null devices and the like, and no others.
void MakeDevices() {
  const std::string kept = "/dev/shm";
  if (mount("tmpfs", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=755") != 0 || mkdir(kept.c_str(), 01777) != 0)
    Give("/dev");
  const struct {
    const char* path;
    unsigned minor;
  } devices[] = {{"/dev/null", 3}, {"/dev/zero", 5}, {"/dev/full", 7}, {"/dev/random", 8}, {"/dev/urandom", 9}};
  umask(0);
  for (const auto& device : devices) {
    if (mknod(device.path, S_IFCHR | 0666, makedev(1, device.minor)) != 0)
      Give(device.path);
  }
  if (symlink("/proc/self/fd", "/dev/fd") != 0)
    Give("/dev/fd");
}

void MakeReadOnly(const std::string& path) {
  mount_attr attributes{};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  // A mount that another one covers is out of reach.
  if (syscall(SYS_mount_setattr, AT_FDCWD, path.c_str(), 0, &attributes, sizeof(attributes)) != 0 && errno != ENOENT &&
      errno != EINVAL)
    Give(path);
}

/// What tests mount later is seen, too, as long as their mounts are shared.
void ChangeView() {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0 ||
      mount("/tmp", "/tmp", nullptr, MS_BIND | MS_REC, nullptr) != 0)
    Give("mounts");
  const mode_t before = umask(0);
  MakeDevices();
  umask(before);
  std::vector<std::string> points;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::size_t begin = 0;
    for (int field = 0; field < 4; ++field)
      begin = line.find(' ', begin) + 1;
    points.push_back(line.substr(begin, line.find(' ', begin) - begin));
  }
  for (const std::string& point : points) {
    if (!IsBelow(point, "/tmp") && !IsBelow(point, "/proc"))
      MakeReadOnly(point);
  }
  // As PrivateTmp= makes it. Kerberos keeps there what it has seen.
  if (mount("tmpfs", "/var/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
    Give("/var/tmp");
  for (const char* const home : {"/home", "/root"}) {
    if (mount("tmpfs", home, "tmpfs", MS_RDONLY, "mode=0") != 0)
      Give(home);
  }
}

void DropRights(const SWalls& walls) {
  constexpr unsigned long Last = 63;
  for (unsigned long capability = 0; capability <= Last; ++capability) {
    const bool kept = (walls.capabilities >> capability & 1) != 0;
    if (!kept && prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EINVAL)
      Give("capabilities");
  }
}

void Filter(const SWalls& walls) {
  // Before the filters: they need it from who has no right to set filters.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    Give("no new privileges");
  for (std::vector<sock_filter> filter : walls.filters) {
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0)
      Give("filter");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: walled WALLS PROGRAM [ARGUMENT...]\n");
    return 2;
  }
  const SWalls walls = ReadWalls(argv[1]);
  ChangeView();
  DropRights(walls);
  Filter(walls);
  execv(argv[2], argv + 2);
  Give(argv[2]);
}
