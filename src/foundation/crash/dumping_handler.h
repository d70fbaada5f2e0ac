// The handler that leaves a dump.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "foundation/crash/crash.h"

namespace crash {

class dumping_handler_t : public crash_handler_t {
 public:
  void OnCrash(const exception_pointers_t& crash) noexcept override;

  /// All of these before other threads.
  void SetPlace(const std::string& name, const std::string& folder, const std::string& logPath);
  void SetGenerator(std::unique_ptr<win32::dump_gen_base_t> generator) noexcept;
  bool HasGenerator() const noexcept { return generator_.load() != nullptr; }
  /// Keeps descriptors for the files of a dump, which a process that has used up its own could not open.
  void ReserveDescriptors() noexcept;

  deinit_seq_t& DeinitSeq() noexcept { return deinitSeq_; }

 private:
  void Handle(const exception_pointers_t& crash, crash_log_t& log) noexcept;
  void Generate(const exception_pointers_t& crash, crash_log_t& log) noexcept;
  void RunDeinitSteps(crash_log_t& log) noexcept;

  path_text_t folder_;
  path_text_t logPath_;
  fixed_text_t<128> stem_;
  /// Owned; never destroyed with the process, which may crash until the very end.
  std::atomic<win32::dump_gen_base_t*> generator_{nullptr};
  deinit_seq_t deinitSeq_;
  /// For the log, the dump, the pipe by which the walk tries addresses, and the image of each module on the stack with
  /// its debug information.
  std::array<int, 16> reserved_{};
  std::size_t reservedCount_ = 0;
};

/// The process's one.
dumping_handler_t& TheDumpingHandler() noexcept;

}  // namespace crash
