// Who is told when a protocol server dies.
#pragma once

#include <exception>

/// Notified by the thread of a protocol server that has met a fatal error and is about to end. Must not throw.
class INFSCrashSink {
 public:
  virtual void OnCrash(const std::exception& exception) = 0;
  virtual ~INFSCrashSink() = default;
};
