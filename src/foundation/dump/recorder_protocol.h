// Between the crashed process and kelvo-dump-recorder, which come from one build: the order of the arguments and what
// the exit codes mean.
#pragma once

#include <cstdint>
#include <string_view>

namespace crash::recorder {

inline constexpr const char* ProgramName = "kelvo-dump-recorder";

/// Argument 0 is the program's name.
enum argument_t : int {
  /// Number of a pidfd of the crashed process that the recorder inherits, decimal.
  ProcessHandle = 1,
  /// Address of the exception_info_t in the crashed process, hexadecimal.
  ExceptionInfo,
  /// The crashed thread, decimal.
  ThreadId,
  /// minidump::type, hexadecimal.
  DumpType,
  Folder,
  /// What a dump's name begins with, before its number.
  Stem,
  ArgumentCount
};

enum class exit_code_t : std::uint32_t {
  Success = 0,
  Unspecified = 1,
  ArgumentCountWrong = 101,
  ArgumentsWrong = 102,
  NoFolder = 103,
  OldDumpsStay = 104,
  NoName = 105,
  NoFile = 106,
  NoContent = 107
};

inline constexpr std::string_view Extension = "mdmp";

/// The text of an exit code; that of Unspecified for codes that nobody returns.
constexpr std::string_view ExitCodeText(std::uint32_t code) noexcept {
  switch (code) {
    case 0:
      return "success";
    case 101:
      return "invalid count of arguments";
    case 102:
      return "invalid arguments";
    case 103:
      return "cannot create dump folder";
    case 104:
      return "cannot delete old dumps";
    case 105:
      return "invalid dump name";
    case 106:
      return "cannot create dump file";
    case 107:
      return "cannot write dump content";
    case 108:
      return "NTDLL is not loaded";
    case 109:
      return "memset is not exported from NTDLL";
    case 110:
      return "_vsnwprintf is not exported from NTDLL";
    default:
      return "unspecified failure";
  }
}

}  // namespace crash::recorder
