#include "kelvo-nfsctl/endpoint.h"

#include "kelvo-nfsctl/usage_error.h"
#include "platform/environment.h"
#include "platform/text.h"

namespace nfsctl {
namespace {

[[noreturn]] void Refuse(std::string_view text) {
  throw usage_error_t("[" + std::string(text) + "] is no endpoint; write unix:PATH, tcp:HOST or tcp:HOST:PORT.");
}

std::uint16_t ParsePort(std::string_view port, std::string_view text) {
  const auto number = platform::ParseU32(port);
  if (!number || *number == 0 || *number > 65535)
    Refuse(text);
  return static_cast<std::uint16_t>(*number);
}

SEndpoint ParseTcp(std::string_view address, std::string_view text) {
  SEndpoint endpoint;
  std::string_view port;
  bool hasPort = false;
  if (address.starts_with('[')) {
    const std::size_t end = address.find(']');
    if (end == std::string_view::npos)
      Refuse(text);
    endpoint.host = address.substr(1, end - 1);
    port = address.substr(end + 1);
    hasPort = !port.empty();
    if (hasPort && !port.starts_with(':'))
      Refuse(text);
    port.remove_prefix(hasPort ? 1 : 0);
  } else if (const std::size_t colon = address.find(':'); colon != address.rfind(':')) {
    endpoint.host = address;
  } else {
    endpoint.host = address.substr(0, colon);
    hasPort = colon != std::string_view::npos;
    if (hasPort)
      port = address.substr(colon + 1);
  }
  if (endpoint.host.empty())
    Refuse(text);
  if (hasPort)
    endpoint.port = ParsePort(port, text);
  return endpoint;
}

}  // namespace

SEndpoint DefaultEndpoint() {
  return {platform::RuntimeFolder() + "/management", {}, DefaultPort};
}

SEndpoint ParseEndpoint(std::string_view text) {
  constexpr std::string_view Unix = "unix:";
  constexpr std::string_view Tcp = "tcp:";
  if (text.starts_with(Unix) && text.size() > Unix.size())
    return {std::string(text.substr(Unix.size())), {}, DefaultPort};
  if (!text.starts_with(Tcp))
    Refuse(text);
  return ParseTcp(text.substr(Tcp.size()), text);
}

}  // namespace nfsctl
