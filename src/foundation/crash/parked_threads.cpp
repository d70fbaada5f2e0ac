#include "foundation/crash/parked_threads.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>

#include "foundation/dump/context.h"
#include "foundation/dump/folder_reader.h"

namespace crash {

namespace {

/// Nobody sends it, and the few threads that block signals leave it open, as it tells of a fault of their own.
constexpr int ParkSignal = SIGSYS;
/// A thread in the middle of a disk access does not come: it is not waited for longer.
constexpr int MaxWaits = 400;
constexpr std::timespec Pause{0, 5000000};

/// For the handler. The place of a thread in the list is its place here.
std::atomic<std::atomic<const ucontext_t*>*> places{nullptr};
/// A futex: 1 lets them go.
std::atomic<std::uint32_t> released{0};

void OnPark(int, siginfo_t* info, void* context) {
  const int error = errno;
  std::atomic<const ucontext_t*>* const all = places.load(std::memory_order_acquire);
  // One that anybody else sent means nothing here.
  if (all != nullptr && info->si_code == SI_QUEUE && info->si_pid == ::getpid()) {
    all[info->si_value.sival_int].store(static_cast<const ucontext_t*>(context), std::memory_order_release);
    while (released.load(std::memory_order_acquire) == 0)
      ::syscall(SYS_futex, &released, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
  }
  errno = error;
}

bool Send(std::uint32_t thread, std::size_t place) noexcept {
  siginfo_t info{};
  info.si_signo = ParkSignal;
  info.si_code = SI_QUEUE;
  info.si_pid = ::getpid();
  info.si_uid = ::getuid();
  info.si_value.sival_int = static_cast<int>(place);
  return ::syscall(SYS_rt_tgsigqueueinfo, ::getpid(), static_cast<pid_t>(thread), ParkSignal, &info) == 0;
}

}  // namespace

parked_threads_t::parked_threads_t(arena_t& arena) noexcept : threads_(arena.Take<dump_thread_t>(MaxThreads)) {
  places.store(arena.Take<std::atomic<const ucontext_t*>>(MaxThreads), std::memory_order_release);
  struct sigaction action {};
  action.sa_sigaction = OnPark;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  ::sigaction(ParkSignal, &action, nullptr);
}

parked_threads_t::~parked_threads_t() {
  released.store(1, std::memory_order_release);
  ::syscall(SYS_futex, &released, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

bool parked_threads_t::IsKnown(std::uint32_t id) const noexcept {
  for (std::size_t i = 0; i < count_; ++i) {
    if (threads_[i].id == id)
      return true;
  }
  return false;
}

/// How many threads were found that had not been known.
std::size_t parked_threads_t::SignalNew(std::uint32_t crashed) noexcept {
  folder_reader_t reader("/proc/self/task");
  std::size_t found = 0;
  std::string_view name;
  std::uint32_t id = 0;
  while (count_ < MaxThreads && reader.Next(name)) {
    if (!ParseNumber(name, id) || id == crashed || IsKnown(id))
      continue;
    if (!Send(id, count_))
      continue;  // It has ended in the meantime.
    threads_[count_++] = {id, false, {}};
    ++found;
  }
  return found;
}

void parked_threads_t::WaitForAll() noexcept {
  const std::atomic<const ucontext_t*>* const all = places.load(std::memory_order_relaxed);
  int waits = 0;
  for (std::size_t i = 1; i < count_; ++i) {
    const ucontext_t* context = nullptr;
    const auto id = static_cast<pid_t>(threads_[i].id);
    while ((context = all[i].load(std::memory_order_acquire)) == nullptr && waits < MaxWaits &&
           ::syscall(SYS_tgkill, ::getpid(), id, 0) == 0) {
      ++waits;
      ::nanosleep(&Pause, nullptr);
    }
    if (context != nullptr) {
      FromSignal(*context, threads_[i].context);
      threads_[i].hasContext = true;
      continue;
    }
    fixed_text_t<64> path;
    path.Add("/proc/self/task/").AddDecimal(threads_[i].id).Add("/syscall");
    threads_[i].hasContext = FromWait(path.CStr(), threads_[i].context);
  }
}

bool parked_threads_t::Collect(const exception_info_t& exception) noexcept {
  if (threads_ == nullptr || places.load(std::memory_order_relaxed) == nullptr)
    return false;
  threads_[0] = {exception.threadId, true, exception.context};
  count_ = 1;
  // A thread that is not held yet may start others.
  while (SignalNew(exception.threadId) > 0)
    WaitForAll();
  return true;
}

}  // namespace crash
