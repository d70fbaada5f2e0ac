// Where the creator of the asynchronous server meets its thread.
#pragma once

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>

#include "foundation/exc.h"

/// Two events that stay set, and why the thread failed. Any thread.
class CAsyncServerState {
 public:
  enum class reached_t { Neither, InitDone, Finished };

  void SetInitDone();
  /// The thread has left its loop; error is null when it ended as it should.
  void SetFinished(boost::shared_ptr<exc::exc_base_t> error);
  /// What is set, InitDone first; Neither when the limit passes before.
  reached_t WaitForAny(std::chrono::milliseconds limit) const;
  /// Null without a failure.
  boost::shared_ptr<exc::exc_base_t> Error() const;

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  bool initDone_ = false;
  bool finished_ = false;
  boost::shared_ptr<exc::exc_base_t> error_;
};
