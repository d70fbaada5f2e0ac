#include "kelvo-nfsctl/service.h"

#include "management/dcerpc/gss_initiator.h"
#include "management/dcerpc/invoker_client.h"

namespace nfsctl {
namespace {

class CRemoteService : public IService {
 public:
  explicit CRemoteService(SConnectionOptions options) : options_(std::move(options)) {}

  std::string Call(const std::string& command, const std::string& input) override {
    return Client().DoRpc(command, input);
  }
  void Ping() override { Client().TestConnection(); }

 private:
  dcerpc::CInvokerClient& Client() {
    if (!client_)
      Connect();
    return *client_;
  }

  void Connect() {
    const SEndpoint& endpoint = options_.endpoint;
    if (endpoint.IsLocal()) {
      client_.emplace(dcerpc::ConnectUnix(endpoint.path, options_.limit));
      return;
    }
    dcerpc::SClientSecurity security = MakeSecurity();
    client_.emplace(dcerpc::ConnectTcp(endpoint.host, endpoint.port, options_.limit), std::move(security));
  }

  dcerpc::SClientSecurity MakeSecurity() const {
    if (options_.auth == dcerpc::auth_type_t::None)
      return {};
    dcerpc::SInitiatorSettings settings{options_.auth, options_.level, options_.endpoint.host, options_.user, {}};
    if (!options_.user.empty())
      settings.password = ReadPassword(options_.user, options_.passwordFile);
    return {std::make_unique<dcerpc::CGssInitiator>(settings), options_.auth, options_.level};
  }

  const SConnectionOptions options_;
  std::optional<dcerpc::CInvokerClient> client_;
};

}  // namespace

std::unique_ptr<IService> MakeService(const SConnectionOptions& options) {
  return std::make_unique<CRemoteService>(options);
}

}  // namespace nfsctl
