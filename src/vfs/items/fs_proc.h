// A call on a file as an object, and what is told of its end.
#pragma once

#include <boost/shared_ptr.hpp>
#include <exception>

/// One call on a file. Holds its arguments, and its results until the caller reads them; buffers are the caller's.
class IFsProc {
 public:
  /// Does the work on an invocation thread, or on a caller's thread that stands in for one. Throws what the work
  /// throws.
  virtual void Execute() = 0;
  virtual ~IFsProc() = default;
};

/// Told of the end of a procedure, on the thread that ran it, or on the one that cancelled it. When OnCompleted throws,
/// OnFailed follows. No lock is held meanwhile.
class IFsProcCompletionCallback {
 public:
  virtual void OnCompleted() = 0;
  /// The exception lives for the call alone.
  virtual void OnFailed(const std::exception& exception) = 0;
  virtual ~IFsProcCompletionCallback() = default;
};
