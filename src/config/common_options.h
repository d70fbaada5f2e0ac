// The general options, which the service shares with other programs.
#pragma once

#include <cstdint>
#include <string>

/// Written once, by LoadOptions, before other threads read. The values are applied as they are read, with no check of
/// their range: who uses one must bear every value.
class CCommonOptions {
 public:
  /// The process's options; their defaults until LoadOptions.
  static CCommonOptions& Instance();

  CCommonOptions() = default;

  /// Reads the table of options and logs each that is there. What is missing keeps its default. Never throws.
  void LoadOptions();

  std::string registryPath = "SOFTWARE\\Kelvo\\Kelvo Vault";
  std::uint32_t perfBufSize = 131072;                    ///< Buffer of the performance log, bytes.
  std::string miniDumpModeType = "Normal";               ///< Kind of crash dump.
  std::uint32_t miniDumpModeMask = 0;                    ///< Crash dump flags.
  std::uint32_t xdrBufInitialSize = 128;                 ///< Initial capacity of a reply, bytes.
  bool outOfProcDumpGen = false;                         ///< Dumps are made by another process.
  std::uint32_t winFileWriteRetryCount = 50;             ///< Rounds of one write to a host file.
  std::uint32_t winFileWriteRetryMaxTimeoutMsec = 1000;  ///< Longest sleep between two of them.
};
