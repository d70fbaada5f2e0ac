#include "foundation/crash/dumping_handler.h"

#include <fcntl.h>
#include <unistd.h>

#include <new>

#include "foundation/crash/guard.h"

namespace crash {

namespace {

/// Longer than a recorder is waited for.
constexpr std::uint32_t GenerateLimitMs = 180000;
/// All of it, the steps of clean-up included.
constexpr std::uint32_t WholeLimitMs = 600000;

void Tell(const exception_pointers_t& crash, crash_log_t& log) noexcept {
  fixed_text_t<24> address;
  address.Add("0x").AddHex(AddressOf(crash), 16);
  log.Info("%1 (%2), address: %3, thread id: %4",
           {SignalName(crash.signal), decimal_t(static_cast<std::uint64_t>(crash.signal)), address.View(),
            decimal_t(crash.threadId)});
  if (!crash.exceptionText.empty())
    log.Info("%1", {crash.exceptionText});
}

}  // namespace

dumping_handler_t& TheDumpingHandler() noexcept {
  // Threads run on after the destructors of static objects, and may crash.
  alignas(dumping_handler_t) static unsigned char place[sizeof(dumping_handler_t)];
  static auto* const handler = new (place) dumping_handler_t;
  return *handler;
}

void dumping_handler_t::SetPlace(const std::string& name, const std::string& folder, const std::string& logPath) {
  stem_.Clear();
  stem_.Add(name).Add("_crash_");
  folder_.Clear();
  folder_.Add(folder);
  logPath_.Clear();
  logPath_.Add(logPath);
}

void dumping_handler_t::SetGenerator(std::unique_ptr<win32::dump_gen_base_t> generator) noexcept {
  delete generator_.exchange(generator.release());
}

void dumping_handler_t::ReserveDescriptors() noexcept {
  for (; reservedCount_ < reserved_.size(); ++reservedCount_) {
    const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
      return;
    reserved_[reservedCount_] = descriptor;
  }
}

void dumping_handler_t::OnCrash(const exception_pointers_t& crash) noexcept {
  for (std::size_t i = 0; i < reservedCount_; ++i)
    ::close(reserved_[i]);
  crash_log_t log(logPath_.CStr());
  auto handle = [&] { Handle(crash, log); };
  failure_t failure;
  if (!Guarded(WholeLimitMs, handle, failure))
    log.Error("Cannot process an unhandled exception.", failure);
}

void dumping_handler_t::Handle(const exception_pointers_t& crash, crash_log_t& log) noexcept {
  log.Info("Trying to generate crash dump");
  Tell(crash, log);
  Generate(crash, log);
  RunDeinitSteps(log);
}

void dumping_handler_t::Generate(const exception_pointers_t& crash, crash_log_t& log) noexcept {
  win32::dump_gen_base_t* const generator = generator_.load();
  failure_t failure;
  bool isGenerated = false;
  auto generate = [&] {
    dump_place_t place;
    place.folder = folder_.CStr();
    place.stem = stem_.View();
    place.log = &log;
    if (generator == nullptr)
      failure.Add("There is no dump generator.");
    else
      isGenerated = generator->Generate(crash, place, failure);
  };
  const int depth = log.Depth();
  if (!Guarded(GenerateLimitMs, generate, failure) || !isGenerated) {
    // A generator that was left in the middle has not gone back itself.
    log.Indent(depth - log.Depth());
    log.Error("Cannot generate crash dump.", failure);
  }
}

void dumping_handler_t::RunDeinitSteps(crash_log_t& log) noexcept {
  failure_t failure;
  {
    crash_log_scope_t scope(log, "Executing crash handlers.");
    if (deinitSeq_.Run(failure)) {
      scope.Success("Crash handlers were successfully executed.");
      return;
    }
  }
  log.Error("Crash handlers cannot be executed.", failure);
}

}  // namespace crash
