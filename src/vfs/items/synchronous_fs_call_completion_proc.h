// The callback of a caller that waits.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <exception>

#include "foundation/events.h"
#include "foundation/exc.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc.h"

/// Lets one thread wait for a procedure that another one runs. The event comes from the allocator and goes back to it.
class CSynchronousFsCallCompletionProc : public IFsProcCompletionCallback {
 public:
  explicit CSynchronousFsCallCompletionProc(boost::shared_ptr<CCompletionEventsAllocator> allocator,
                                            std::uint32_t waitLimitMs = synch::LongWaitMs);
  CSynchronousFsCallCompletionProc(const CSynchronousFsCallCompletionProc&) = delete;
  CSynchronousFsCallCompletionProc& operator=(const CSynchronousFsCallCompletionProc&) = delete;
  ~CSynchronousFsCallCompletionProc() override;

  void OnCompleted() override;
  void OnFailed(const std::exception& exception) override;

  /// Returns when the procedure completed; throws its exception, of its own dynamic type, when it failed, and
  /// runtime_exc_t "Timed out to wait for FS call procedure call." when the limit passed.
  /// An exception from outside the family is handed over, not copied: a second call does not throw it.
  void Wait();

 private:
  const boost::shared_ptr<CCompletionEventsAllocator> allocator_;
  const std::uint32_t waitLimitMs_;
  /// Both are written before the event is set, and read after it.
  boost::shared_ptr<exc::exc_base_t> exception_;
  /// A failure from outside the exception family.
  std::exception_ptr foreignException_;
  const boost::shared_ptr<synch::manual_event_t> event_;
};
