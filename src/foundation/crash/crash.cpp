#include "foundation/crash/crash.h"

#include <filesystem>
#include <memory>

#include "foundation/crash/dumping_handler.h"
#include "foundation/crash/legacy_dump_gen.h"
#include "foundation/crash/minidump_gen.h"
#include "foundation/crash/out_of_proc_dump_gen.h"
#include "foundation/crash/signal_entry.h"
#include "foundation/dump/recorder_protocol.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/process.h"
#include "platform/text.h"

namespace crash {

namespace {

/// From this version of the system on, the process writes minidumps itself.
constexpr std::uint32_t FirstVersionWithMinidumps = 510;

std::string ProgramFolder() {
  const std::string program = platform::ExecutablePath();
  const std::size_t slash = program.find_last_of('/');
  if (slash == std::string::npos)
    throw exc::runtime_exc_t("Cannot initialize crash folder path");
  return slash == 0 ? "/" : program.substr(0, slash);
}

std::uint64_t TypeOf(const dump_options_t& options) {
  const bool isFull = platform::EqualIgnoringCase(options.type, "Full");
  return options.mask | (isFull ? minidump::type::WithFullMemory : minidump::type::Normal);
}

std::unique_ptr<win32::dump_gen_base_t> MakeOutOfProc(std::uint64_t type) {
  try {
    return std::make_unique<win32::COutOfProcDumpGen>(ProgramFolder() + "/" + recorder::ProgramName, type);
  } catch (const std::exception& failure) {
    g_log.Error("Failed to create out-of-process dump generator", failure);
    return nullptr;
  }
}

std::unique_ptr<win32::dump_gen_base_t> MakeInProc(std::uint64_t type) {
  if (platform::OsVersionCode() >= FirstVersionWithMinidumps) {
    try {
      return std::make_unique<win32::minidump_gen_t>(type);
    } catch (const std::exception& failure) {
      g_log.Warning("A crash will leave a text report instead of a dump.", failure);
    }
  }
  return std::make_unique<win32::legacy_dump_gen_t>();
}

}  // namespace

crash_handler_t& DumpingHandler() noexcept {
  return TheDumpingHandler();
}

void Install(crash_handler_t& handler) {
  InstallSignals(handler);
  dumping_handler_t& dumping = TheDumpingHandler();
  if (&handler != &dumping || dumping.HasGenerator())
    return;
  dumping.SetPlace("", ProgramFolder(), "");
  dumping.ReserveDescriptors();
  dumping.SetGenerator(MakeInProc(minidump::type::Normal));
}

void SetName(const std::string& name, const std::string& logPath) {
  const std::filesystem::path log = std::filesystem::absolute(logPath);
  TheDumpingHandler().SetPlace(name, log.parent_path().string(), log.string());
}

deinit_seq_t::registration_t AddDeinitStep(boost::shared_ptr<deinit_step_t> step) {
  return TheDumpingHandler().DeinitSeq().Add(std::move(step));
}

void ChooseGenerator(const dump_options_t& options) noexcept {
  try {
    const std::uint64_t type = TypeOf(options);
    std::unique_ptr<win32::dump_gen_base_t> generator;
    if (options.outOfProcess)
      generator = MakeOutOfProc(type);
    if (generator == nullptr)
      generator = MakeInProc(type);
    TheDumpingHandler().SetGenerator(std::move(generator));
  } catch (const std::exception& failure) {
    g_log.Error("Cannot choose how a crash is recorded.", failure);
  }
}

}  // namespace crash
