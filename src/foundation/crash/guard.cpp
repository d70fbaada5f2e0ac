#include "foundation/crash/guard.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <csignal>
#include <ctime>

namespace crash {

namespace {

constexpr std::int64_t NsPerSecond = 1000000000;
constexpr std::int64_t NsPerMs = 1000000;

struct guard_t {
  sigjmp_buf place;
  std::int64_t deadlineNs = 0;
  guard_t* outer = nullptr;
};

/// Of the one thread that runs guarded steps, and of its handlers.
guard_t* volatile innermost = nullptr;
int timerId = -1;
pid_t timerThread = 0;

int TimeoutSignal() noexcept {
  return SIGRTMAX - 2;
}

std::int64_t NowNs() noexcept {
  std::timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * NsPerSecond + now.tv_nsec;
}

void OnTimeout(int signal) {
  // Late ones may belong to a step that has ended.
  if (guard_t* const guard = innermost; guard != nullptr && NowNs() >= guard->deadlineNs)
    LeaveGuard(signal);
}

/// A timer whose signal comes to this thread. The library's own call would do for that, but promises nothing in
/// a signal handler.
void MakeTimer() noexcept {
  const pid_t self = ::gettid();
  if (timerThread == self)
    return;
  struct sigaction action {};
  action.sa_handler = OnTimeout;
  action.sa_flags = SA_ONSTACK | SA_NODEFER;
  ::sigaction(TimeoutSignal(), &action, nullptr);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, TimeoutSignal());
  ::pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = TimeoutSignal();
  event._sigev_un._tid = self;
  if (::syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timerId) != 0)
    timerId = -1;
  timerThread = self;
}

/// Fires again and again from then on: a signal that came in an unlucky moment is not the last.
void SetTimer(const guard_t* guard) noexcept {
  if (timerId < 0)
    return;
  itimerspec when{};
  if (guard != nullptr) {
    when.it_value = {guard->deadlineNs / NsPerSecond, guard->deadlineNs % NsPerSecond};
    when.it_interval = {1, 0};
  }
  ::syscall(SYS_timer_settime, timerId, TIMER_ABSTIME, &when, nullptr);
}

void Close(guard_t& guard) noexcept {
  innermost = guard.outer;
  SetTimer(guard.outer);
}

}  // namespace

bool RunGuarded(std::uint32_t limitMs, void (*step)(void*), void* argument, failure_t& failure) noexcept {
  MakeTimer();
  guard_t guard;
  guard.outer = innermost;
  guard.deadlineNs = NowNs() + limitMs * NsPerMs;
  // The time of a step is also the time of what it waits for.
  if (guard.outer != nullptr)
    guard.deadlineNs = std::min(guard.deadlineNs, guard.outer->deadlineNs);
  const int signal = sigsetjmp(guard.place, 1);
  if (signal == 0) {
    innermost = &guard;
    SetTimer(&guard);
    step(argument);
    Close(guard);
    return true;
  }
  Close(guard);
  if (signal == TimeoutSignal()) {
    failure.Add("Not finished within %1 milliseconds.", {decimal_t(limitMs)});
  } else {
    failure.Add("Ended by %1.", {SignalName(signal)});
  }
  return false;
}

void LeaveGuard(int signal) noexcept {
  if (guard_t* const guard = innermost)
    siglongjmp(guard->place, signal);
}

const char* SignalName(int signal) noexcept {
  switch (signal) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGILL:
      return "SIGILL";
    case SIGABRT:
      return "SIGABRT";
    default:
      return "signal";
  }
}

}  // namespace crash
