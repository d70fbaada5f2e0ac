#include "management/invoke_dispatcher.h"

#include <string_view>

#include "foundation/exc.h"
#include "foundation/log.h"

namespace wrap {

IInvokeDispatcher::~IInvokeDispatcher() = default;

// Takes the references over, and drops them.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void IInvokeDispatcher::InvokeSerial(winxml::document_ptr, winxml::document_ptr) {}

void IInvokeDispatcher::SoapEnter(const std::string& name, const std::string& input) {
  g_rpc_log.Info("");
  g_rpc_log.Info("[SoapEnter] %1:%2", name, input);
}

void IInvokeDispatcher::SoapExit(const std::string& name, const std::string& output) {
  std::string_view text = output;
  if (text.ends_with("\r\n"))
    text.remove_suffix(2);
  g_rpc_log.Info("[SoapExit] %1:%2", name, text);
}

void IInvokeDispatcher::OnCallFailed(const std::string& name, const std::string&, const std::exception& failure) {
  g_rpc_log.Error("RPC method call has failed (%1).", failure, name);
}

bool IInvokeDispatcher::IsSerialInvokerEnabled() {
  return false;
}

}  // namespace wrap
