#include "management/dcerpc/rpc_runtime.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <memory>
#include <optional>
#include <utility>

#include "foundation/log.h"

namespace dcerpc {

using platform::error_t;

namespace {

/// The number of a binding over TCP; nothing for another.
std::optional<std::uint16_t> TcpPort(std::string_view binding) {
  constexpr std::string_view Tcp = "ncacn_ip_tcp:";
  std::uint16_t port = 0;
  if (!binding.starts_with(Tcp))
    return std::nullopt;
  binding.remove_prefix(Tcp.size());
  const auto [end, failure] = std::from_chars(binding.begin(), binding.end(), port);
  if (failure != std::errc() || end != binding.end())
    return std::nullopt;
  return port;
}

}  // namespace

CRpcRuntime::CRpcRuntime(boost::shared_ptr<ISecurityProvider> security, SRuntimeLimits limits,
                         SEndpointMapperPlace mapper)
    : security_(std::move(security)),
      limits_(limits),
      mapper_(mapper),
      slots_(boost::make_shared<CCallSlots>(limits.calls)) {}

CRpcRuntime::~CRpcRuntime() {
  StopListening();
}

error_t CRpcRuntime::UsePort(std::uint32_t port) {
  SListeningSocket socket;
  const error_t failure = ListenTcp(port, socket);
  if (failure == platform::error::Success)
    sockets_.push_back(std::move(socket));
  return failure;
}

error_t CRpcRuntime::UseAnyPort() {
  const error_t failure = UsePort(0);
  // Without an endpoint mapper this line is the only place to learn it from.
  if (failure == platform::error::Success)
    g_rpc_log.Info("Free port for listening: [%1].", sockets_.back().address);
  return failure;
}

error_t CRpcRuntime::UseLocalSocket() {
  SListeningSocket socket;
  const error_t failure = ListenLocal(socket, localFile_);
  if (failure == platform::error::Success)
    sockets_.push_back(std::move(socket));
  return failure;
}

error_t CRpcRuntime::RegisterInterface(boost::shared_ptr<IRpcInterface> served) {
  if (served == nullptr)
    return platform::error::InvalidParameter;
  const auto isSame = [&](const boost::shared_ptr<IRpcInterface>& other) { return other->Id() == served->Id(); };
  if (std::any_of(association_.interfaces.begin(), association_.interfaces.end(), isSame))
    return rpc_error::TypeAlreadyRegistered;
  association_.interfaces.emplace_back(boost::make_shared<CLimitedInterface>(std::move(served), slots_));
  return platform::error::Success;
}

error_t CRpcRuntime::InquireBindings(std::vector<std::string>& bindings) {
  bindings.clear();
  for (const SListeningSocket& socket : sockets_)
    bindings.push_back(socket.Binding());
  for (const std::unique_ptr<CListener>& listener : listeners_)
    bindings.push_back(listener->Socket().Binding());
  return bindings.empty() ? rpc_error::NoBindings : platform::error::Success;
}

error_t CRpcRuntime::RegisterEndpoint(const SSyntaxId& interface, std::string_view name,
                                      const std::vector<std::string>& bindings) {
  const std::unique_ptr<CEndpointMapper> mapper = CEndpointMapper::Find(mapper_);
  if (mapper == nullptr)
    g_rpc_log.Info("There is no endpoint mapper. RPC interface '%1' is found by its port alone.", name);
  for (const std::string& binding : bindings)
    g_rpc_log.Info("Binding: [%1].", binding);
  if (mapper == nullptr)
    return platform::error::Success;
  const auto refused = [name](error_t number, const std::exception& failure) {
    g_rpc_log.Warning("The endpoint mapper does not take the RPC interface '%1'.", failure, name);
    return number;
  };
  try {
    for (const std::string& binding : bindings) {
      const std::optional<std::uint16_t> port = TcpPort(binding);
      if (!port)
        continue;
      const SEndpointEntry entry{interface, *port, {}, std::string(name)};
      mapper->Insert(entry);
      registered_.push_back(entry);
    }
  } catch (const fault_exc_t& failure) {
    return refused(failure.Status(), failure);
  } catch (const exc::win_sys_exc_t& failure) {
    return refused(failure.Code(), failure);
  } catch (const std::exception& failure) {
    return refused(rpc_error::CallFailed, failure);
  }
  g_rpc_log.Info("RPC interface '%1' is registered in the endpoint mapper.", name);
  return platform::error::Success;
}

/// A mapper that has gone, or does not want to, is none of the stop's business.
void CRpcRuntime::WithdrawEndpoints() noexcept {
  try {
    const std::vector<SEndpointEntry> entries = std::exchange(registered_, {});
    if (entries.empty())
      return;
    const std::unique_ptr<CEndpointMapper> mapper = CEndpointMapper::Find(mapper_);
    if (mapper == nullptr)
      throw exc::runtime_exc_t("The endpoint mapper does not answer.");
    for (const SEndpointEntry& entry : entries)
      mapper->Delete(entry);
  } catch (const std::exception& failure) {
    g_rpc_log.Warning("The endpoint mapper keeps what it was told of this service.", failure);
  }
}

error_t CRpcRuntime::QualifiedHostName(std::string& name) {
  std::array<char, HOST_NAME_MAX + 1> text{};
  if (::gethostname(text.data(), text.size() - 1) != 0)
    return platform::LastError();
  name = text.data();
  if (name.find('.') != std::string::npos)
    return platform::error::Success;
  // The name alone stands where the resolver knows nothing better.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_CANONNAME;
  addrinfo* found = nullptr;
  if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0)
    return platform::error::Success;
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(found, &::freeaddrinfo);
  if (list->ai_canonname != nullptr && std::string_view(list->ai_canonname).find('.') != std::string_view::npos)
    name = list->ai_canonname;
  return platform::error::Success;
}

error_t CRpcRuntime::MakeSpn(std::string_view serviceClass, std::string_view host, std::string& spn) {
  if (serviceClass.empty() || host.empty())
    return platform::error::InvalidParameter;
  spn = exc::FormatText("%1/%2", serviceClass, host);
  return platform::error::Success;
}

void CRpcRuntime::RegisterAuthentication(const std::string&, auth_type_t type) {
  if (security_ == nullptr)
    throw exc::runtime_exc_t("There is no security provider.");
  security_->Accept(type, auth_level_t::Privacy);
  association_.security = security_;
}

SListenerSettings CRpcRuntime::MakeSettings(const SListeningSocket& socket) const {
  SListenerSettings settings;
  settings.association = association_;
  settings.association.secondaryAddress = socket.address;
  // The kernel has proved who a local caller is.
  if (socket.isLocal)
    settings.association.security.reset();
  settings.limits = limits_.connection;
  settings.maxConnections = limits_.connections;
  return settings;
}

error_t CRpcRuntime::Listen() {
  if (!listeners_.empty())
    return rpc_error::AlreadyListening;
  if (sockets_.empty())
    return rpc_error::NoBindings;
  try {
    for (SListeningSocket& socket : sockets_) {
      SListenerSettings settings = MakeSettings(socket);
      listeners_.push_back(std::make_unique<CListener>(std::move(socket), std::move(settings)));
      listeners_.back()->Start();
    }
  } catch (const std::exception& failure) {
    g_rpc_log.Error("A listener does not start.", failure);
    listeners_.clear();
    sockets_.clear();
    return platform::error::NotEnoughMemory;
  }
  sockets_.clear();
  return platform::error::Success;
}

error_t CRpcRuntime::StopListening() {
  WithdrawEndpoints();
  if (listeners_.empty())
    return rpc_error::NotListening;
  for (const std::unique_ptr<CListener>& listener : listeners_)
    listener->SignalStop();
  slots_->Close();
  listeners_.clear();
  localFile_ = CSocketFile();
  return platform::error::Success;
}

}  // namespace dcerpc
