// Writes a minidump of a crashed process, which starts this program and waits for it. Reads the process from outside,
// so that whatever the crash has damaged in there cannot stop the dump.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>

#include "foundation/dump/dump_folder.h"
#include "foundation/dump/minidump_writer.h"
#include "foundation/dump/new_dump.h"
#include "foundation/dump/recorder_protocol.h"
#include "foundation/dump/small_file.h"
#include "traced_threads.h"

namespace {

using crash::recorder::exit_code_t;

constexpr std::size_t ArenaSize = std::size_t{128} << 20;

struct arguments_t {
  std::uint32_t processId = 0;
  std::uint64_t exceptionInfo = 0;
  std::uint32_t threadId = 0;
  std::uint64_t dumpType = 0;
  const char* folder = nullptr;
  std::string_view stem;
};

template <typename T>
bool ParseWhole(std::string_view text, int base, T& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

/// The process behind a pidfd, as the kernel tells of the descriptor; 0 for anything else and for one that has ended.
std::uint32_t ProcessOf(std::uint32_t handle) {
  constexpr std::string_view Key = "\nPid:\t";
  crash::fixed_text_t<64> path;
  path.Add("/proc/self/fdinfo/").AddDecimal(handle);
  char text[1024];
  std::string_view info(text, crash::ReadSmallFile(path.CStr(), text, sizeof text));
  const std::size_t at = info.find(Key);
  if (at == std::string_view::npos)
    return 0;
  info.remove_prefix(at + Key.size());
  std::uint32_t processId = 0;
  return ParseWhole(info.substr(0, info.find('\n')), 10, processId) ? processId : 0;
}

bool Parse(char** texts, arguments_t& arguments) {
  using namespace crash::recorder;
  std::uint32_t handle = 0;
  if (!ParseWhole(texts[ProcessHandle], 10, handle) || !ParseWhole(texts[ExceptionInfo], 16, arguments.exceptionInfo) ||
      !ParseWhole(texts[ThreadId], 10, arguments.threadId) || !ParseWhole(texts[DumpType], 16, arguments.dumpType))
    return false;
  arguments.processId = ProcessOf(handle);
  arguments.folder = texts[Folder];
  arguments.stem = texts[Stem];
  return arguments.processId != 0 && arguments.folder[0] == '/';
}

/// Nobody reads what this program would say of them.
class CSilentSink : public crash::old_dump_sink_t {
 public:
  void Deleted(std::string_view) noexcept override {}
  void NotDeleted(std::string_view) noexcept override {}
};

exit_code_t FindPath(const arguments_t& arguments, crash::text_t& path, crash::failure_t& failure) {
  using result_t = crash::dump_folder_t::result_t;
  if (arguments.stem.empty() || arguments.stem.find('/') != std::string_view::npos) {
    failure.Add("[%1] cannot begin the name of a file.", {arguments.stem});
    return exit_code_t::NoName;
  }
  CSilentSink sink;
  switch (crash::dump_folder_t(arguments.folder, arguments.stem, crash::recorder::Extension)
              .NextPath(sink, path, failure)) {
    case result_t::Ok:
      return exit_code_t::Success;
    case result_t::NoFolder:
      return exit_code_t::NoFolder;
    case result_t::TooMany:
      return exit_code_t::OldDumpsStay;
    case result_t::NoName:
      break;
  }
  return exit_code_t::NoName;
}

exit_code_t Record(const arguments_t& arguments, crash::failure_t& failure) {
  crash::arena_t arena(ArenaSize);
  if (!arena.IsValid())
    return exit_code_t::Unspecified;
  crash::process_reader_t process(arguments.processId, arena);
  if (!process.Open(failure))
    return exit_code_t::Unspecified;
  crash::dump_content_t content;
  content.type = arguments.dumpType;
  if (!process.Read(arguments.exceptionInfo, &content.exception, sizeof content.exception) ||
      content.exception.magic != crash::exception_info_t::Magic || content.exception.threadId != arguments.threadId) {
    failure.Add("The process tells of no crash at this address.");
    return exit_code_t::ArgumentsWrong;
  }
  crash::path_text_t path;
  const exit_code_t found = FindPath(arguments, path, failure);
  if (found != exit_code_t::Success)
    return found;
  crash::new_dump_t dump(path.CStr());
  if (!dump.Create()) {
    failure.AddSystem("Cannot create a blank minidump file. File path: [%1].", {path.View()}, errno);
    return exit_code_t::NoFile;
  }
  CTracedThreads threads(process, arena);
  const bool isCollected = threads.Collect(content.exception);
  content.threads = threads.Threads();
  content.threadCount = threads.Count();
  if (!isCollected || !crash::WriteMinidump(dump.Descriptor(), process, content, arena, failure) ||
      !dump.Finish(failure))
    return exit_code_t::NoContent;
  return exit_code_t::Success;
}

exit_code_t Run(int count, char** texts) {
  if (count != crash::recorder::ArgumentCount)
    return exit_code_t::ArgumentCountWrong;
  arguments_t arguments;
  if (!Parse(texts, arguments))
    return exit_code_t::ArgumentsWrong;
  crash::failure_t failure;
  const exit_code_t code = Record(arguments, failure);
  if (code != exit_code_t::Success) {
    // For whoever reads what the service writes to its standard error; the service itself tells the code.
    const std::string_view text = failure.Text();
    [[maybe_unused]] ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
    ignored = ::write(STDERR_FILENO, "\n", 1);
  }
  return code;
}

}  // namespace

int main(int count, char** texts) {
  // The crashed process blocked all signals for the moment of the start.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGXFSZ, SIG_IGN);
  ::umask(0077);
  return static_cast<int>(Run(count, texts));
}
