#include "fault/preload/fault_injection.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

// The heap's own entries, under the names by which it can be reached when malloc is ours.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* block, std::size_t size);

namespace {

/// Null until the library is loaded, and in a process that was given no file.
test::SFaults* faults = nullptr;

__attribute__((constructor)) void Prepare() {
  const char* const path = std::getenv(test::FaultsVariable);
  if (path == nullptr)
    return;
  const int file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0));
  void* const mapped = mmap(nullptr, sizeof(test::SFaults), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  syscall(SYS_close, file);
  if (mapped != MAP_FAILED)
    faults = static_cast<test::SFaults*>(mapped);
}

bool IsMeant(const char* path) {
  return std::strncmp(path, faults->path, std::strlen(faults->path)) == 0;
}

bool IsMeant(int file) {
  char link[32];
  char path[512];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", file);
  const ssize_t length = readlink(link, path, sizeof path - 1);
  if (length < 0)
    return false;
  path[length] = '\0';
  return IsMeant(path);
}

template <typename What>
bool Fails(const std::atomic<int> test::SFaults::*fault, const What& what) {
  const int error = faults == nullptr ? 0 : (faults->*fault).load();
  if (error == 0 || !IsMeant(what))
    return false;
  faults->failed.fetch_add(1);
  errno = error;
  return true;
}

/// Whether a path that is relative to a folder is meant, which is so when the folder is.
bool FailsAt(int folder, const char* path) {
  return folder == AT_FDCWD || path[0] == '/' ? Fails(&test::SFaults::openError, path)
                                              : Fails(&test::SFaults::openError, folder);
}

bool IsMemoryRefused() {
  const std::uint32_t oneIn = faults == nullptr ? 0 : faults->memoryOneIn.load(std::memory_order_relaxed);
  if (oneIn == 0)
    return false;
  // Nothing of the thread's own, which would take memory itself.
  static std::atomic<std::uint32_t> requests{0};
  std::uint32_t mixed = requests.fetch_add(1, std::memory_order_relaxed) * 2654435761U;
  mixed ^= mixed >> 15U;
  mixed *= 2246822519U;
  mixed ^= mixed >> 13U;
  if (mixed % oneIn != 0)
    return false;
  faults->failed.fetch_add(1);
  errno = ENOMEM;
  return true;
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::int64_t ClockShift() {
  return faults == nullptr ? 0 : faults->clockSeconds.load();
}

}  // namespace

#pragma GCC diagnostic ignored "-Wpedantic"

extern "C" {

ssize_t pread64(int file, void* data, size_t size, off64_t offset) {
  return Fails(&test::SFaults::readError, file) ? -1 : syscall(SYS_pread64, file, data, size, offset);
}
ssize_t pread(int file, void* data, size_t size, off_t offset) {
  return pread64(file, data, size, offset);
}
ssize_t read(int file, void* data, size_t size) {
  return Fails(&test::SFaults::readError, file) ? -1 : syscall(SYS_read, file, data, size);
}
ssize_t splice(int from, off64_t* fromAt, int to, off64_t* toAt, size_t size, unsigned flags) {
  return Fails(&test::SFaults::readError, from) ? -1 : syscall(SYS_splice, from, fromAt, to, toAt, size, flags);
}
ssize_t pwrite64(int file, const void* data, size_t size, off64_t offset) {
  return Fails(&test::SFaults::writeError, file) ? -1 : syscall(SYS_pwrite64, file, data, size, offset);
}
ssize_t pwrite(int file, const void* data, size_t size, off_t offset) {
  return pwrite64(file, data, size, offset);
}
ssize_t write(int file, const void* data, size_t size) {
  return Fails(&test::SFaults::writeError, file) ? -1 : syscall(SYS_write, file, data, size);
}
int ftruncate64(int file, off64_t size) noexcept {
  return Fails(&test::SFaults::writeError, file) ? -1 : static_cast<int>(syscall(SYS_ftruncate, file, size));
}
int ftruncate(int file, off_t size) noexcept {
  return ftruncate64(file, size);
}
int fsync(int file) {
  return Fails(&test::SFaults::syncError, file) ? -1 : static_cast<int>(syscall(SYS_fsync, file));
}
int fdatasync(int file) {
  return Fails(&test::SFaults::syncError, file) ? -1 : static_cast<int>(syscall(SYS_fdatasync, file));
}

int openat(int folder, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return FailsAt(folder, path) ? -1 : static_cast<int>(syscall(SYS_openat, folder, path, flags, mode));
}
int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return openat(AT_FDCWD, path, flags, mode);
}
int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int openat64(int folder, const char* path, int flags, ...) __attribute__((alias("openat")));
int mkdirat(int folder, const char* path, mode_t mode) noexcept {
  return FailsAt(folder, path) ? -1
                               : static_cast<int>(::Next<long(long, ...)>("syscall")(SYS_mkdirat, folder, path, mode));
}

/// How the service opens below its shares.
long syscall(long number, ...) noexcept {
  va_list rest;
  va_start(rest, number);
  long arguments[6];
  for (long& argument : arguments)
    argument = va_arg(rest, long);
  va_end(rest);
  static auto* const next = Next<long(long, ...)>("syscall");
  if (number == SYS_openat2 && FailsAt(static_cast<int>(arguments[0]), reinterpret_cast<const char*>(arguments[1])))
    return -1;
  return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

void* malloc(std::size_t size) {
  return IsMemoryRefused() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return IsMemoryRefused() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  return IsMemoryRefused() ? nullptr : __libc_realloc(block, size);
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
    now->tv_sec += ClockShift();
  return static_cast<int>(result);
}
std::time_t time(std::time_t* to) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (to != nullptr)
    *to = now.tv_sec;
  return now.tv_sec;
}
int gettimeofday(timeval* to, void*) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  to->tv_sec = now.tv_sec;
  to->tv_usec = now.tv_nsec / 1000;
  return 0;
}

}  // extern "C"
