// The management interface as a client calls it.
#pragma once

#include <string>
#include <string_view>

#include "management/dcerpc/client.h"

namespace dcerpc {

/// The service did the call and told that it failed. Its texts are those of the service, root cause first.
class call_failed_exc_t : public exc::exc_of_t<call_failed_exc_t, exc::exc_base_t> {
 public:
  explicit call_failed_exc_t(std::string text) : exc_of_t(std::move(text)) {}
  std::string GetKind() const override { return "call_failed_exc_t"; }
};

/// As CRpcClient; texts are UTF-8.
class CInvokerClient {
 public:
  explicit CInvokerClient(std::unique_ptr<IClientStream> stream, SClientSecurity security = {})
      : client_(std::move(stream), InterfaceId(), std::move(security)) {}

  /// The output document of a command. Throws call_failed_exc_t when the command failed.
  std::string DoRpc(std::string_view name, std::string_view arguments);
  /// Returns when the service answers, to whomever it may be.
  void TestConnection();

 private:
  static const SSyntaxId& InterfaceId();

  CRpcClient client_;
};

}  // namespace dcerpc
