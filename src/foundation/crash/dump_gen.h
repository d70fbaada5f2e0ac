// Generators of dumps.
#pragma once

#include <ucontext.h>

#include <csignal>
#include <cstdint>
#include <string_view>

#include "foundation/crash/crash_log.h"
#include "foundation/dump/exception_info.h"
#include "foundation/dump/text.h"

namespace crash {

/// A crash as the system tells it. Good while the signal handler runs.
struct exception_pointers_t {
  int signal = 0;
  const siginfo_t* info = nullptr;
  const ucontext_t* context = nullptr;
  std::uint32_t threadId = 0;
  /// What an exception that nobody caught says; empty for other crashes.
  std::string_view exceptionText;
};

/// Where dumps go, and where it is told.
struct dump_place_t {
  const char* folder = "";
  /// What a dump's name begins with, before its number.
  std::string_view stem;
  crash_log_t* log = nullptr;
};

/// The address of the fault, or of the instruction when the signal tells none.
std::uint64_t AddressOf(const exception_pointers_t& crash) noexcept;
/// The record that a dump is made from, but for its notes.
void FillExceptionInfo(const exception_pointers_t& crash, exception_info_t& info) noexcept;
/// The path of the next dump, after old ones were deleted, which goes to the log. False adds to the failure.
bool NextDumpPath(const dump_place_t& place, std::string_view extension, text_t& path, failure_t& failure) noexcept;

namespace win32 {

/// Made in sound times, where whatever cannot be had is an exception; used once, after a crash, on the crashed thread.
class dump_gen_base_t {
 public:
  virtual ~dump_gen_base_t() = default;
  /// Leaves a dump. False adds to the failure. No heap, no lock.
  virtual bool Generate(const exception_pointers_t& crash, const dump_place_t& place, failure_t& failure) noexcept = 0;
};

}  // namespace win32

}  // namespace crash
