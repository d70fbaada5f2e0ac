#include "integration/preload/crash_injection.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

using test::injected_t;

std::atomic<bool> crashesNextLine{false};
/// In the heap, and in no other memory.
char* heapMark = nullptr;
volatile int zero = 0;
volatile int seven = 7;

void WriteToNull() {
  *reinterpret_cast<volatile int*>(static_cast<std::uintptr_t>(zero)) = 1;
}

void ReadPastEndOfFile() {
  char path[] = "/tmp/kelvo-bus-XXXXXX";
  const int file = mkstemp(path);
  unlink(path);
  if (ftruncate(file, 4096) != 0)
    _exit(99);
  auto* const bytes = static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0));
  if (ftruncate(file, 0) != 0)
    _exit(99);
  static_cast<void>(bytes[0]);
}

/// Nobody may throw through it.
void ThrowToNobody(bool isClass) noexcept {
  if (isClass)
    throw std::runtime_error("the injected failure");
  throw 42;
}

int Recurse(int depth) {
  volatile char room[1024];
  room[0] = static_cast<char>(depth);
  return Recurse(depth + 1) + room[0];
}

void DamageHeap() {
  // The sizes in front of a block and behind it tell the heap where its neighbours are.
  auto* const first = static_cast<char*>(std::malloc(2000));
  auto* const second = static_cast<char*>(std::malloc(2000));
  std::memset(first - 16, 0x5a, 4000);
  std::free(second);
  std::free(first);
  for (int i = 0; i < 1000; ++i)
    static_cast<void>(std::malloc(3000));
}

void LockHeap() {
  constexpr std::size_t Size = 60000;
  auto* const last = static_cast<char*>(std::malloc(Size));
  // What tells how much is left behind the last block.
  std::memset(last + Size, 0x5a, 64);
  for (int i = 0; i < 1000; ++i)
    static_cast<void>(std::malloc(Size + 32 * i));
}

void UseUpDescriptors() {
  while (open("/dev/null", O_RDONLY) >= 0) {
  }
}

void* CrashToo(void* start) {
  while (!static_cast<std::atomic<bool>*>(start)->load()) {
  }
  WriteToNull();
  return nullptr;
}

void CrashTogether() {
  static std::atomic<bool> start{false};
  pthread_t other;
  pthread_create(&other, nullptr, CrashToo, &start);
  start.store(true);
  WriteToNull();
}

void BlockSignals() {
  sigset_t all;
  sigfillset(&all);
  sigdelset(&all, SIGSEGV);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

void OnInjection(int, siginfo_t* info, void*) {
  switch (static_cast<injected_t>(info->si_value.sival_int)) {
    case injected_t::NullPointer:
      return WriteToNull();
    case injected_t::TruncatedMapping:
      return ReadPastEndOfFile();
    case injected_t::DivisionByZero:
      std::printf("%d", seven / zero);
      return;
    case injected_t::BadInstruction:
      __builtin_trap();
    case injected_t::Abort:
      std::abort();
    case injected_t::Exception:
      return ThrowToNobody(true);
    case injected_t::ExceptionOfNoClass:
      return ThrowToNobody(false);
    case injected_t::StackOverflow:
      std::printf("%d", Recurse(0));
      return;
    case injected_t::DamagedHeap:
      return DamageHeap();
    case injected_t::LockedHeap:
      return LockHeap();
    case injected_t::LogLine:
      crashesNextLine = true;
      return;
    case injected_t::NoDescriptors:
      UseUpDescriptors();
      return WriteToNull();
    case injected_t::TwoThreads:
      return CrashTogether();
    case injected_t::BlockedSignals:
      BlockSignals();
      return WriteToNull();
  }
}

__attribute__((constructor)) void Prepare() {
  struct sigaction action {};
  action.sa_sigaction = OnInjection;
  // On the thread's own stack, so that its overflow is the thread's.
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaction(SIGUSR2, &action, nullptr);
  heapMark = static_cast<char*>(std::malloc(64));
  std::strcpy(heapMark, test::HeapMarkHead);
  std::strcat(heapMark, test::HeapMarkTail);
}

bool IsVariable(const char* name, const char* value) {
  const char* const set = std::getenv(name);
  return set != nullptr && std::strcmp(set, value) == 0;
}

}  // namespace

extern "C" {

int uname(utsname* name) {
  const long result = syscall(SYS_uname, name);
  if (const char* const release = std::getenv(test::KernelVariable))
    std::strcpy(name->release, release);
  return static_cast<int>(result);
}

int sd_notify(int, const char* state) {
  if (std::strncmp(state, "STOPPING", 8) != 0)
    return 0;
  if (IsVariable(test::NotifyVariable, "crash"))
    WriteToNull();
  if (IsVariable(test::NotifyVariable, "throw"))
    throw std::runtime_error("the injected failure");
  while (IsVariable(test::NotifyVariable, "hang"))
    pause();
  return 0;
}

ssize_t write(int file, const void* data, size_t size) {
  // Half of a line is out, and the log's lock is held.
  if (size > 4 && *static_cast<const char*>(data) == '[' && crashesNextLine.exchange(false)) {
    syscall(SYS_write, file, data, size / 2);
    WriteToNull();
  }
  return syscall(SYS_write, file, data, size);
}

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0;
  va_end(rest);
  if (IsVariable(test::ClosedVariable, path)) {
    errno = EACCES;
    return -1;
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

}  // extern "C"
