#include "foundation/crash/signal_entry.h"

#include <cxxabi.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <typeinfo>

#include "foundation/crash/guard.h"
#include "foundation/exc.h"
#include "platform/signal_stack.h"

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

namespace crash {

namespace {

constexpr int CrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int ExitOfSignal = 128;

std::atomic<crash_handler_t*> installed{nullptr};
/// The thread whose crash is being handled.
std::atomic<pid_t> crashedThread{0};

/// What the exception says that nobody caught, kept on its way from std::terminate to the signal.
std::atomic<bool> isTerminating{false};
fixed_text_t<1024> exceptionText;

/// As the system ends a process that does not handle the signal, so that whoever waits for it is told.
[[noreturn]] void EndProcess(int signal) noexcept {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  ::syscall(SYS_tgkill, ::getpid(), ::gettid(), signal);
  ::_exit(ExitOfSignal + signal);
}

/// While another thread's crash is handled: the process ends with it.
void WaitForTheEnd(bool isOwnCrash) noexcept {
  if (isOwnCrash)
    return;
  for (;;)
    ::pause();
}

void OnSignal(int signal, siginfo_t* info, void* context) {
  const pid_t self = ::gettid();
  pid_t nobody = 0;
  if (!crashedThread.compare_exchange_strong(nobody, self)) {
    WaitForTheEnd(nobody == self);
    LeaveGuard(signal);
    EndProcess(signal);
  }
  exception_pointers_t crash;
  crash.signal = signal;
  crash.info = info;
  crash.context = static_cast<const ucontext_t*>(context);
  crash.threadId = static_cast<std::uint32_t>(self);
  if (signal == SIGABRT && isTerminating.load())
    crash.exceptionText = exceptionText.View();
  installed.load()->OnCrash(crash);
  EndProcess(signal);
}

void DescribeException() noexcept {
  const std::type_info* const type = abi::__cxa_current_exception_type();
  if (type == nullptr) {
    exceptionText.Add("std::terminate was called.");
    return;
  }
  exceptionText.Format("Unhandled exception of type %1", {type->name()});
  try {
    throw;
  } catch (const std::exception& exception) {
    exceptionText.Add(": ").Add(exception.what());
  } catch (...) {
    // Its type is all that is known.
  }
}

[[noreturn]] void OnTerminate() noexcept {
  // One thread tells its exception; a second, and a failure in here, end in the signal at once.
  if (!isTerminating.exchange(true))
    DescribeException();
  std::abort();
}

}  // namespace

bool AreSignalsOfSanitizers() noexcept {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) || \
    __has_feature(thread_sanitizer)
  return true;
#else
  return false;
#endif
}

void InstallSignals(crash_handler_t& handler) {
  crash_handler_t* nobody = nullptr;
  if (!installed.compare_exchange_strong(nobody, &handler)) {
    if (nobody == &handler)
      return;
    throw exc::runtime_exc_t("Cannot supersede crash handler.");
  }
  if (AreSignalsOfSanitizers())
    return;
  struct sigaction action {};
  action.sa_sigaction = OnSignal;
  // A second fault in the handler comes to it again: it is then left.
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER | SA_RESTART;
  for (const int signal : CrashSignals) {
    struct sigaction old {};
    ::sigaction(signal, nullptr, &old);
    if ((old.sa_flags & SA_SIGINFO) != 0 || (old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN))
      throw exc::runtime_exc_t("Cannot supersede crash handler.");
  }
  // For the calling thread, which may be the last to end: never taken away.
  static auto* const stack = new platform::signal_stack_t;
  static_cast<void>(stack);
  for (const int signal : CrashSignals)
    ::sigaction(signal, &action, nullptr);
  std::set_terminate(OnTerminate);
}

}  // namespace crash
