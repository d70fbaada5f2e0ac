// A minidump that another process writes.
#pragma once

#include <string>

#include "foundation/crash/dump_gen.h"
#include "foundation/dump/exception_info.h"
#include "platform/location.h"

namespace crash::win32 {

/// Starts the recorder, which reads the crashed process from outside, so that nothing of the dump depends on what the
/// crash has damaged.
class COutOfProcDumpGen : public dump_gen_base_t {
 public:
  static constexpr std::uint32_t DefaultLimitMs = 120000;

  /// Opens the recorder, so that it stays the one that belongs to this program when an update replaces the file, and
  /// a handle of this process for it. The type is one of minidump::type. Throws "Failed to create out-of-process dump
  /// generator" over the cause.
  COutOfProcDumpGen(const std::string& recorderPath, std::uint64_t type, std::uint32_t limitMs = DefaultLimitMs);

  bool Generate(const exception_pointers_t& crash, const dump_place_t& place, failure_t& failure) noexcept override;

 private:
  struct start_t;

  static int RunChild(void* start) noexcept;
  bool Start(const dump_place_t& place, std::uint32_t threadId, pid_t& child, failure_t& failure) noexcept;
  bool WaitFor(pid_t child, failure_t& failure) const noexcept;

  const std::string recorderPath_;
  const std::uint64_t type_;
  const std::uint32_t limitMs_;
  platform::descriptor_t process_{-1};
  platform::descriptor_t recorder_{-1};
  /// The recorder reads it in this process.
  exception_info_t info_;
};

}  // namespace crash::win32
