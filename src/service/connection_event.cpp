#include "service/connection_event.h"

#include "foundation/log.h"
#include "platform/named_event.h"

namespace {

constexpr char EventName[] = "Global\\KelvoNfsSvcConnection";
/// Whoever may start a virtual machine may wait for its datastore.
constexpr mode_t EveryAccount = 0666;

boost::shared_ptr<platform::named_event_t> OpenEvent() {
  boost::shared_ptr<platform::named_event_t> event;
  if (platform::named_event_t::Open(EventName, event) != platform::error::Success)
    event.reset();
  return event;
}

}  // namespace

CConnectionEvent::CConnectionEvent() {
  const platform::error_t error = platform::named_event_t::Create(EventName, EveryAccount, event_);
  if (event_ == nullptr)
    g_log.Verbose("The connection event was not created. Error code: %1", error);
}

CConnectionEvent::~CConnectionEvent() {
  if (event_ != nullptr)
    event_->Reset();
}

void SignalConnectionEvent() noexcept {
  if (const auto event = OpenEvent())
    event->Set();
}

int VerifyConnection(std::uint32_t limitMilliseconds) noexcept {
  const auto event = OpenEvent();
  if (event == nullptr)
    return -1;
  return event->Wait(limitMilliseconds) == platform::error::Success ? 0 : -1;
}
