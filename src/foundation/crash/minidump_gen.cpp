#include "foundation/crash/minidump_gen.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "foundation/crash/parked_threads.h"
#include "foundation/crash/thread_notes.h"
#include "foundation/dump/minidump_writer.h"
#include "foundation/dump/new_dump.h"
#include "foundation/dump/recorder_protocol.h"
#include "foundation/exc.h"

namespace crash::win32 {

namespace {

constexpr std::size_t ArenaSize = std::size_t{128} << 20;
constexpr std::size_t NotesSize = std::size_t{63} << 10;

}  // namespace

minidump_gen_t::minidump_gen_t(std::uint64_t type) : type_(type), arena_(ArenaSize) {
  try {
    if (!arena_.IsValid())
      throw exc::win_sys_exc_t("Cannot reserve memory.", platform::ErrorFromErrno(ENOMEM));
    for (const char* const path : {"/proc/self/maps", "/proc/self/mem", "/proc/self/task"}) {
      const int file = ::open(path, O_RDONLY | O_CLOEXEC);
      if (file < 0)
        throw exc::win_sys_exc_t(exc::FormatText("Failed to open [%1].", path), platform::LastError());
      ::close(file);
    }
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Minidump writer cannot be initialized.", failure);
  }
}

bool minidump_gen_t::Generate(const exception_pointers_t& crash, const dump_place_t& place,
                              failure_t& failure) noexcept {
  path_text_t path;
  if (!NextDumpPath(place, recorder::Extension, path, failure))
    return false;
  place.log->Info("Writing dump. Dump path: %1.", {path.View()});
  if (Write(crash, path.CStr(), failure))
    return true;
  failure.Add("Crash details cannot be stored in minidump.");
  return false;
}

bool minidump_gen_t::Write(const exception_pointers_t& crash, const char* path, failure_t& failure) noexcept {
  new_dump_t dump(path);
  if (!dump.Create()) {
    failure.AddSystem("Cannot create a blank minidump file. File path: [%1].", {path}, errno);
    return false;
  }
  char* const notesPlace = arena_.Take<char>(NotesSize);
  process_reader_t process(static_cast<std::uint32_t>(::getpid()), arena_);
  bool isWritten = notesPlace != nullptr;
  if (isWritten) {
    dump_content_t content;
    content.type = type_;
    FillExceptionInfo(crash, content.exception);
    text_t notes(notesPlace, NotesSize);
    AddThreadNotes(crash.threadId, notes);
    content.exception.notes = reinterpret_cast<std::uintptr_t>(notesPlace);
    content.exception.notesSize = notes.View().size();
    parked_threads_t threads(arena_);
    isWritten = threads.Collect(content.exception) && process.Open(failure);
    content.threads = threads.Threads();
    content.threadCount = threads.Count();
    isWritten = isWritten && WriteMinidump(dump.Descriptor(), process, content, arena_, failure);
  }
  if (isWritten && dump.Finish(failure))
    return true;
  failure.Add("MiniDumpWriteDump() function call has failed.");
  return false;
}

}  // namespace crash::win32
