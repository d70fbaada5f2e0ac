// What the run modes do when the asynchronous server dies.
#pragma once

#include <cstdint>

#include "foundation/nfs_crash_sink.h"

/// Of the service: the loss is told in the log, and the service stays in its state until it is stopped.
class CNFSCrashSink : public INFSCrashSink {
 public:
  /// The thread that ran the start sequence.
  explicit CNFSCrashSink(std::uint32_t threadId) : threadId_(threadId) {}
  void OnCrash(const std::exception& exception) override;
  std::uint32_t ThreadId() const { return threadId_; }

 private:
  std::uint32_t threadId_;
};

/// Of debug mode: whoever debugs sees it anyway.
class CSilentNFSCrashSink : public INFSCrashSink {
 public:
  void OnCrash(const std::exception& exception) override;
};
