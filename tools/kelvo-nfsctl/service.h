// The service that commands go to.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "kelvo-nfsctl/endpoint.h"
#include "kelvo-nfsctl/envelope.h"
#include "management/dcerpc/caller.h"
#include "management/dcerpc/security_context.h"

namespace nfsctl {

/// Takes calls. One thread.
class IService {
 public:
  virtual ~IService() = default;
  /// The output document of a command that is given its input document. Throws when it fails.
  virtual std::string Call(const std::string& command, const std::string& input) = 0;
  /// Returns when the service answers anyone at all.
  virtual void Ping() = 0;

  COutput Call(const std::string& command, const arguments_t& arguments) {
    return COutput(Call(command, MakeInput(arguments)));
  }
};

/// How to reach the service, and as whom; a value.
struct SConnectionOptions {
  SEndpoint endpoint = DefaultEndpoint();
  /// Empty: the Kerberos tickets at hand.
  std::string user;
  std::string passwordFile;
  dcerpc::auth_type_t auth = dcerpc::auth_type_t::Negotiate;
  dcerpc::auth_level_t level = dcerpc::auth_level_t::Privacy;
  /// Silence for longer than this is a failure; zero waits for ever.
  std::chrono::seconds limit{300};
};

/// The service behind the endpoint; connects with the first call.
std::unique_ptr<IService> MakeService(const SConnectionOptions& options);

/// The user's password: the first line of the file when one is named ("-" is standard input), else the variable
/// KELVO_PASSWORD, else what is typed on the terminal. Throws exc::runtime_exc_t when there is none of them.
std::string ReadPassword(const std::string& user, const std::string& file);

}  // namespace nfsctl
