#include "traced_threads.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>

#include "foundation/dump/context.h"
#include "foundation/dump/folder_reader.h"

namespace {

/// A thread in the middle of a disk access cannot be stopped: it is not waited for longer.
constexpr int MaxWaits = 200;
constexpr std::timespec Pause{0, 5000000};

}  // namespace

CTracedThreads::CTracedThreads(const crash::process_reader_t& process, crash::arena_t& arena) noexcept
    : process_(process),
      threads_(arena.Take<crash::dump_thread_t>(MaxThreads)),
      isSeized_(arena.Take<bool>(MaxThreads)) {}

CTracedThreads::~CTracedThreads() {
  for (std::size_t i = 0; i < count_; ++i) {
    if (isSeized_[i])
      ::ptrace(PTRACE_DETACH, static_cast<pid_t>(threads_[i].id), nullptr, nullptr);
  }
}

bool CTracedThreads::IsKnown(std::uint32_t id) const noexcept {
  for (std::size_t i = 0; i < count_; ++i) {
    if (threads_[i].id == id)
      return true;
  }
  return false;
}

/// How many threads were found that had not been known.
std::size_t CTracedThreads::AttachNew(std::uint32_t crashed) noexcept {
  crash::fixed_text_t<64> path;
  process_.PathOf("/task", path);
  crash::folder_reader_t reader(path.CStr());
  std::size_t found = 0;
  std::string_view name;
  std::uint32_t id = 0;
  while (count_ < MaxThreads && reader.Next(name)) {
    if (!crash::ParseNumber(name, id) || id == crashed || IsKnown(id))
      continue;
    threads_[count_] = {};
    threads_[count_].id = id;
    const auto thread = static_cast<pid_t>(id);
    isSeized_[count_] = ::ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == 0 &&
                        ::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) == 0;
    ++count_;
    ++found;
  }
  return found;
}

void CTracedThreads::TakeContext(crash::dump_thread_t& thread, bool& isStopped) noexcept {
  const auto id = static_cast<pid_t>(thread.id);
  int status = 0;
  isStopped = ::waitpid(id, &status, __WALL | WNOHANG) == id && WIFSTOPPED(status);
  if (!isStopped)
    return;
  user_regs_struct registers{};
  user_fpregs_struct floats{};
  if (::ptrace(PTRACE_GETREGS, id, nullptr, &registers) != 0)
    return;
  ::ptrace(PTRACE_GETFPREGS, id, nullptr, &floats);
  crash::FromTrace(registers, floats, thread.context);
  thread.hasContext = true;
}

bool CTracedThreads::Collect(const crash::exception_info_t& exception) noexcept {
  if (threads_ == nullptr || isSeized_ == nullptr)
    return false;
  threads_[0] = {exception.threadId, true, exception.context};
  isSeized_[0] = false;
  count_ = 1;
  // A thread that is not stopped yet may start others.
  while (AttachNew(exception.threadId) > 0) {
  }
  int waits = 0;
  for (std::size_t i = 1; i < count_; ++i) {
    bool isStopped = false;
    while (isSeized_[i] && !isStopped) {
      TakeContext(threads_[i], isStopped);
      if (isStopped || ++waits > MaxWaits)
        break;
      ::nanosleep(&Pause, nullptr);
    }
    if (!threads_[i].hasContext) {
      crash::fixed_text_t<64> path;
      process_.PathOf("/task/", path);
      path.AddDecimal(threads_[i].id).Add("/syscall");
      threads_[i].hasContext = crash::FromWait(path.CStr(), threads_[i].context);
    }
  }
  return true;
}
