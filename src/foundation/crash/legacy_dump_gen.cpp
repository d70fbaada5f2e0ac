#include "foundation/crash/legacy_dump_gen.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/crash/crash_report.h"
#include "foundation/log_setup.h"

namespace crash::win32 {

namespace {

constexpr std::size_t ArenaSize = std::size_t{32} << 20;

}  // namespace

legacy_dump_gen_t::legacy_dump_gen_t() : version_(logging::ModuleVersion()), arena_(ArenaSize) {}

bool legacy_dump_gen_t::Generate(const exception_pointers_t& crash, const dump_place_t& place,
                                 failure_t& failure) noexcept {
  path_text_t path;
  if (!NextDumpPath(place, Extension, path, failure))
    return false;
  place.log->Info("Writing legacy dump. Dump path: %1.", {path.View()});
  const int file = ::open(path.CStr(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool isWritten = file >= 0;
  if (isWritten) {
    isWritten = WriteReport(file, crash, version_.c_str(), arena_, failure);
    isWritten = ::close(file) == 0 && isWritten;
  } else {
    failure.AddSystem("Cannot create file [%1].", {path.View()}, errno);
  }
  if (!isWritten)
    failure.Add("Crash details cannot be stored in legacy format.");
  return isWritten;
}

}  // namespace crash::win32
