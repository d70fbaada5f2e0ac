#include "foundation/crash/dump_gen.h"

#include <unistd.h>

#include "foundation/dump/context.h"
#include "foundation/dump/dump_folder.h"

namespace crash {

namespace {

class log_sink_t : public old_dump_sink_t {
 public:
  explicit log_sink_t(crash_log_t& log) noexcept : log_(log) {}
  void Deleted(std::string_view path) noexcept override { log_.Info("Dump [%1] deleted.", {path}); }
  void NotDeleted(std::string_view path) noexcept override {
    log_.Info("Old dump cannot be removed. Dump path: [%1].", {path});
  }

 private:
  crash_log_t& log_;
};

}  // namespace

std::uint64_t AddressOf(const exception_pointers_t& crash) noexcept {
  // Only the kernel's own signals tell an address; one that was sent tells its sender in the same place.
  if (crash.info->si_code > 0 && crash.info->si_code != SI_KERNEL && crash.signal != SIGABRT)
    return reinterpret_cast<std::uintptr_t>(crash.info->si_addr);
  return static_cast<std::uint64_t>(crash.context->uc_mcontext.gregs[REG_RIP]);
}

void FillExceptionInfo(const exception_pointers_t& crash, exception_info_t& info) noexcept {
  info.signal = crash.signal;
  info.code = crash.info->si_code;
  info.address = AddressOf(crash);
  info.processId = static_cast<std::uint32_t>(::getpid());
  info.threadId = crash.threadId;
  FromSignal(*crash.context, info.context);
}

bool NextDumpPath(const dump_place_t& place, std::string_view extension, text_t& path, failure_t& failure) noexcept {
  log_sink_t sink(*place.log);
  return dump_folder_t(place.folder, place.stem, extension).NextPath(sink, path, failure) ==
         dump_folder_t::result_t::Ok;
}

}  // namespace crash
