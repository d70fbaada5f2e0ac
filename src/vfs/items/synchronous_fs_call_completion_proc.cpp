#include "vfs/items/synchronous_fs_call_completion_proc.h"

#include <utility>

CSynchronousFsCallCompletionProc::CSynchronousFsCallCompletionProc(
    boost::shared_ptr<CCompletionEventsAllocator> allocator, std::uint32_t waitLimitMs)
    : allocator_(std::move(allocator)), waitLimitMs_(waitLimitMs), event_(allocator_->Acquire()) {}

// Whoever signals holds a share of this object meanwhile, so that no late signal can reach the event's next user.
CSynchronousFsCallCompletionProc::~CSynchronousFsCallCompletionProc() {
  allocator_->Release(event_);
}

void CSynchronousFsCallCompletionProc::OnCompleted() {
  exception_.reset();
  foreignException_ = nullptr;
  event_->Set();
}

void CSynchronousFsCallCompletionProc::OnFailed(const std::exception& exception) {
  try {
    if (const auto* const own = dynamic_cast<const exc::exc_base_t*>(&exception)) {
      exception_ = own->Clone();
    } else if (foreignException_ = std::current_exception(); foreignException_ == nullptr) {
      exception_ = exc::CloneException(exception);
    }
  } catch (...) {
    // No memory for the copy: the waiter is told of that, rather than of nothing.
    foreignException_ = std::current_exception();
  }
  event_->Set();
}

void CSynchronousFsCallCompletionProc::Wait() {
  if (!event_->Wait(waitLimitMs_))
    throw exc::runtime_exc_t("Timed out to wait for FS call procedure call.");
  if (exception_ != nullptr)
    exception_->Rethrow();
  if (foreignException_ != nullptr)
    std::rethrow_exception(std::exchange(foreignException_, nullptr));
}
