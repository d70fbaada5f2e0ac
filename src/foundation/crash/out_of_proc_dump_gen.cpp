#include "foundation/crash/out_of_proc_dump_gen.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "foundation/crash/thread_notes.h"
#include "foundation/dump/recorder_protocol.h"
#include "foundation/exc.h"

namespace crash::win32 {

namespace {

constexpr std::timespec Pause{0, 5000000};
constexpr std::int64_t NsPerMs = 1000000;
constexpr std::int64_t NsPerSecond = 1000000000;
constexpr std::int64_t ReapLimitMs = 1000;
/// Shell of the exit codes: what a child is that never became the recorder.
constexpr int NotStarted = 127;

/// The child that is to become the recorder lives in the memory of this process until then.
alignas(16) char childStack[65536];
char notesPlace[std::size_t{63} << 10];

std::int64_t NowNs() noexcept {
  std::timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * NsPerSecond + now.tv_nsec;
}

/// True when the child has ended before the limit.
bool WaitUntilEnded(pid_t child, std::int64_t limitMs, int& status) noexcept {
  const std::int64_t end = NowNs() + limitMs * NsPerMs;
  for (;;) {
    const pid_t ended = ::waitpid(child, &status, WNOHANG | __WALL);
    if (ended == child)
      return true;
    if ((ended < 0 && errno != EINTR) || NowNs() >= end)
      return false;
    ::nanosleep(&Pause, nullptr);
  }
}

}  // namespace

struct COutOfProcDumpGen::start_t {
  int process = -1;
  int recorder = -1;
  char* arguments[recorder::ArgumentCount + 1] = {};
  volatile int error = 0;
};

COutOfProcDumpGen::COutOfProcDumpGen(const std::string& recorderPath, std::uint64_t type, std::uint32_t limitMs)
    : recorderPath_(recorderPath), type_(type), limitMs_(limitMs) {
  try {
    process_ = platform::descriptor_t(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
    if (!process_.IsOpen()) {
      throw exc::win_sys_exc_t(
          "Cannot initialize out-of-process dump generator: failed to duplicate current process handle",
          platform::LastError());
    }
    recorder_ = platform::descriptor_t(::open(recorderPath_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!recorder_.IsOpen() || ::access(recorderPath_.c_str(), X_OK) != 0) {
      const platform::error_t error = platform::LastError();
      throw exc::win_sys_exc_t(exc::FormatText("Failed to create dump recorder file: %1", recorderPath_), error);
    }
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to create out-of-process dump generator", failure);
  }
}

bool COutOfProcDumpGen::Generate(const exception_pointers_t& crash, const dump_place_t& place,
                                 failure_t& failure) noexcept {
  path_text_t target;
  target.Add(place.folder).Add('/').Add(place.stem);
  fixed_text_t<MaxPath + 64> title;
  title.Format("Generating dump to %1", {target.View()});
  crash_log_scope_t scope(*place.log, title.View());
  FillExceptionInfo(crash, info_);
  text_t notes(notesPlace, sizeof notesPlace);
  AddThreadNotes(crash.threadId, notes);
  info_.notes = reinterpret_cast<std::uintptr_t>(notesPlace);
  info_.notesSize = notes.View().size();
  // The system may let nobody read the process, or only its parents. What the kernel itself leaves of it afterwards
  // is as private as it was.
  const int dumpable = ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
  ::prctl(PR_SET_DUMPABLE, 1, 0, 0, 0);
  ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  pid_t child = -1;
  const bool isWritten = Start(place, crash.threadId, child, failure) && WaitFor(child, failure);
  ::prctl(PR_SET_PTRACER, 0, 0, 0, 0);
  if (dumpable != 1)
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  if (isWritten)
    scope.Success();
  return isWritten;
}

/// Shares memory with the crashed thread, which waits for it: nothing here but system calls.
int COutOfProcDumpGen::RunChild(void* argument) noexcept {
  auto* const start = static_cast<start_t*>(argument);
  ::fcntl(start->process, F_SETFD, 0);
  ::fcntl(start->recorder, F_SETFD, 0);
  char* const none[] = {nullptr};
  ::syscall(SYS_execveat, start->recorder, "", start->arguments, none, AT_EMPTY_PATH);
  start->error = errno;
  ::_exit(NotStarted);
}

bool COutOfProcDumpGen::Start(const dump_place_t& place, std::uint32_t threadId, pid_t& child,
                              failure_t& failure) noexcept {
  fixed_text_t<24> process;
  fixed_text_t<24> info;
  fixed_text_t<24> thread;
  fixed_text_t<24> type;
  path_text_t folder;
  fixed_text_t<256> stem;
  process.AddDecimal(static_cast<std::uint64_t>(process_.Get()));
  info.AddHex(reinterpret_cast<std::uintptr_t>(&info_));
  thread.AddDecimal(threadId);
  type.AddHex(type_);
  folder.Add(place.folder);
  stem.Add(place.stem);
  start_t start;
  start.process = process_.Get();
  start.recorder = recorder_.Get();
  const char* const texts[] = {recorder::ProgramName, process.CStr(), info.CStr(), thread.CStr(),
                               type.CStr(),           folder.CStr(),  stem.CStr()};
  static_assert(std::size(texts) == recorder::ArgumentCount);
  for (std::size_t i = 0; i < std::size(texts); ++i)
    start.arguments[i] = const_cast<char*>(texts[i]);

  // Who ignores it is not told how a child has ended.
  ::signal(SIGCHLD, SIG_DFL);
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &old);
  // fork() would take the heap's locks, and need memory for a copy of the page tables.
  child = ::clone(&RunChild, childStack + sizeof childStack, CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
  const int error = child < 0 ? errno : start.error;
  ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (error == 0)
    return true;
  if (child > 0)
    ::waitpid(child, nullptr, __WALL);
  failure.AddSystem("Failed to start dump generator process. File: %1", {recorderPath_}, error);
  return false;
}

bool COutOfProcDumpGen::WaitFor(pid_t child, failure_t& failure) const noexcept {
  int status = 0;
  if (!WaitUntilEnded(child, limitMs_, status)) {
    ::kill(child, SIGKILL);
    WaitUntilEnded(child, ReapLimitMs, status);
    failure.Add("Timed out waiting for dump generator process to finish");
    return false;
  }
  const auto code =
      static_cast<std::uint32_t>(WIFEXITED(status) ? WEXITSTATUS(status) : NotStarted + 1 + WTERMSIG(status));
  if (code == 0)
    return true;
  failure.Add("Dump generator process failed with %1: %2", {decimal_t(code), recorder::ExitCodeText(code)});
  return false;
}

}  // namespace crash::win32
