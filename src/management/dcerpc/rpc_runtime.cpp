#include "management/dcerpc/rpc_runtime.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>

#include "foundation/log.h"

namespace dcerpc {

using platform::error_t;

CRpcRuntime::CRpcRuntime(boost::shared_ptr<ISecurityProvider> security, SRuntimeLimits limits)
    : security_(std::move(security)), limits_(limits), slots_(boost::make_shared<CCallSlots>(limits.calls)) {}

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
  association_.interfaces.push_back(boost::make_shared<CLimitedInterface>(std::move(served), slots_));
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

error_t CRpcRuntime::RegisterEndpoint(std::string_view name, const std::vector<std::string>& bindings) {
  g_rpc_log.Info("There is no endpoint mapper. RPC interface '%1' is found by its port alone.", name);
  for (const std::string& binding : bindings)
    g_rpc_log.Info("Binding: [%1].", binding);
  return platform::error::Success;
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
