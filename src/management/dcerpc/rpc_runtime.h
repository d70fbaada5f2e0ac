// What a server of remote procedures asks of its runtime, and the runtime.
#pragma once

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "management/dcerpc/call_slots.h"
#include "management/dcerpc/endpoint_mapper.h"
#include "management/dcerpc/endpoint_socket.h"
#include "management/dcerpc/listener.h"
#include "platform/error.h"

namespace dcerpc {

/// Results of the runtime's operations beside the endpoint_error ones and those of the system.
namespace rpc_error {
inline constexpr platform::error_t TypeAlreadyRegistered = 1712;
inline constexpr platform::error_t AlreadyListening = 1713;
inline constexpr platform::error_t NotListening = 1715;
inline constexpr platform::error_t NoBindings = 1718;
inline constexpr platform::error_t CallFailed = 1726;
}  // namespace rpc_error

/// The runtime. One thread at a time; operations return a number, 0 for success.
class IRpcRuntime {
 public:
  virtual ~IRpcRuntime() = default;

  /// Opens a TCP port; who connects waits until Listen. endpoint_error::DuplicateEndpoint when the port is held.
  virtual platform::error_t UsePort(std::uint32_t port) = 0;
  /// Opens every kind of remote endpoint, each where there is room.
  virtual platform::error_t UseAnyPort() = 0;
  /// Opens the Unix socket.
  virtual platform::error_t UseLocalSocket() = 0;
  /// TypeAlreadyRegistered when the identity is served already.
  virtual platform::error_t RegisterInterface(boost::shared_ptr<IRpcInterface> served) = 0;
  /// What was opened, as SListeningSocket::Binding tells it.
  virtual platform::error_t InquireBindings(std::vector<std::string>& bindings) = 0;
  /// Tells an endpoint mapper where an interface is; the name is for people.
  virtual platform::error_t RegisterEndpoint(const SSyntaxId& interface, std::string_view name,
                                             const std::vector<std::string>& bindings) = 0;
  virtual platform::error_t QualifiedHostName(std::string& name) = 0;
  virtual platform::error_t MakeSpn(std::string_view serviceClass, std::string_view host, std::string& spn) = 0;
  /// Whether callers can authenticate in this way. Throws what the security provider throws when they cannot.
  virtual void RegisterAuthentication(const std::string& spn, auth_type_t type) = 0;
  /// Begins to serve; AlreadyListening when it does.
  virtual platform::error_t Listen() = 0;
  /// Ends serving and waits for the calls that run; NotListening when it does not serve.
  virtual platform::error_t StopListening() = 0;
};

/// Limits of the runtime; the defaults are what the service runs with.
struct SRuntimeLimits {
  static constexpr std::size_t DefaultCalls = 1234;

  /// Calls at once, over all connections; more wait.
  std::size_t calls = DefaultCalls;
  /// Connections at once, of each endpoint; more wait.
  std::size_t connections = SListenerSettings::DefaultConnections;
  SConnectionLimits connection;
};

class CRpcRuntime : public IRpcRuntime {
 public:
  /// Without a security provider nobody can authenticate over TCP.
  explicit CRpcRuntime(boost::shared_ptr<ISecurityProvider> security, SRuntimeLimits limits = {},
                       SEndpointMapperPlace mapper = {});
  /// Stops.
  ~CRpcRuntime() override;

  platform::error_t UsePort(std::uint32_t port) override;
  platform::error_t UseAnyPort() override;
  platform::error_t UseLocalSocket() override;
  platform::error_t RegisterInterface(boost::shared_ptr<IRpcInterface> served) override;
  platform::error_t InquireBindings(std::vector<std::string>& bindings) override;
  /// Where no endpoint mapper answers: logged, and registered with nothing. Else with its TCP ports, until it stops;
  /// why that failed is logged, and the number is the mapper's status, that of its fault or CallFailed.
  platform::error_t RegisterEndpoint(const SSyntaxId& interface, std::string_view name,
                                     const std::vector<std::string>& bindings) override;
  platform::error_t QualifiedHostName(std::string& name) override;
  platform::error_t MakeSpn(std::string_view serviceClass, std::string_view host, std::string& spn) override;
  void RegisterAuthentication(const std::string& spn, auth_type_t type) override;
  platform::error_t Listen() override;
  platform::error_t StopListening() override;

 private:
  SListenerSettings MakeSettings(const SListeningSocket& socket) const;
  void WithdrawEndpoints() noexcept;

  const boost::shared_ptr<ISecurityProvider> security_;
  const SRuntimeLimits limits_;
  const SEndpointMapperPlace mapper_;
  const boost::shared_ptr<CCallSlots> slots_;
  /// What all listeners share.
  SAssociationSettings association_;
  std::vector<SListeningSocket> sockets_;
  CSocketFile localFile_;
  /// What a mapper was told.
  std::vector<SEndpointEntry> registered_;
  /// Empty unless it serves.
  std::vector<std::unique_ptr<CListener>> listeners_;
};

}  // namespace dcerpc
