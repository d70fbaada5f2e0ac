#include "service/start_advice.h"

#include "foundation/exc.h"

namespace {

constexpr platform::error_t WsaAccess = 10013;
constexpr std::string_view BindText = "Failed to bind socket object to port \"";

}  // namespace

std::optional<std::string> AdviceForFailedStart(const std::exception& failure) {
  const auto* const system = dynamic_cast<const exc::win_sys_exc_t*>(&failure);
  if (system == nullptr || system->Code() != WsaAccess)
    return std::nullopt;
  for (const auto& message : system->Messages()) {
    if (!message.text.starts_with(BindText))
      continue;
    const std::string port =
        message.text.substr(BindText.size(), message.text.find('"', BindText.size()) - BindText.size());
    return exc::FormatText(
        "This account may not bind port %1: run KelvoNfsSvc as root or with the capability CAP_NET_BIND_SERVICE.",
        port);
  }
  return std::nullopt;
}
