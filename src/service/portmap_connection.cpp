#include "service/portmap_connection.h"

#include <netinet/in.h>

#include <boost/make_shared.hpp>

#include "transports/sockets/socket_rpc_stream.h"

namespace {

constexpr char Host[] = "127.0.0.1";
constexpr std::uint16_t Port = 111;

}  // namespace

std::unique_ptr<IRpcClientStream> ConnectToPortmapper() {
  const auto socket = boost::make_shared<CSocketIP>(true);
  // Without the privilege the port is any, which our own portmapper does not mind.
  static_cast<void>(::bindresvport(socket->Socket(), nullptr));
  socket->Connect(Host, Port);
  return std::make_unique<CSocketRpcStream>(socket);
}
