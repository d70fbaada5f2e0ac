// What the process does when it crashes. Installed first thing; told more as the start goes on.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "foundation/crash/deinit_seq.h"
#include "foundation/crash/dump_gen.h"

namespace crash {

/// Does the work of a crash.
class crash_handler_t {
 public:
  /// On the crashed thread, in a signal handler, on a stack of its own; once in the life of the process. Everything
  /// may be damaged and any lock may be held: no heap, no lock, no exception. The process ends by the signal when it
  /// returns. A fault inside ends the process as well, except under Guarded (guard.h).
  virtual void OnCrash(const exception_pointers_t& crash) noexcept = 0;
  virtual ~crash_handler_t() = default;
};

/// The handler that leaves a dump and runs the clean-up steps. Never destroyed.
crash_handler_t& DumpingHandler() noexcept;

/// Makes the handler the one that is called for SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT and an exception that nobody
/// catches, and gives the calling thread a stack for it; other threads need a platform::signal_stack_t each. Before
/// other threads. Again with the same handler: nothing. Throws "Cannot supersede crash handler." when another handler
/// is there, and "Cannot initialize crash folder path". In a build with sanitizers the signals stay theirs: their
/// reports tell more.
void Install(crash_handler_t& handler);

/// The dumps' name, as "NFS", and the log: dumps lie in its folder, and a crash is told in it. Until then dumps lie
/// beside the program. Before other threads. Throws what makes no path.
void SetName(const std::string& name, const std::string& logPath);

/// Adds a step of clean-up after a crash; they run in the order in which they were added. Any thread. Returns what
/// takes the step out again when it is destroyed.
[[nodiscard]] deinit_seq_t::registration_t AddDeinitStep(boost::shared_ptr<deinit_step_t> step);

struct dump_options_t {
  /// "Normal" or "Full", without regard to case; another text is Normal.
  std::string type = "Normal";
  /// Further bits of minidump::type.
  std::uint32_t mask = 0;
  bool outOfProcess = false;
};

/// Makes the generator that is used from now on, and logs what cannot be had. Before Install's caller starts other
/// threads. Never throws; without memory the old one stays.
void ChooseGenerator(const dump_options_t& options) noexcept;

}  // namespace crash
