#include "service/portmap_connection.h"

#include "foundation/exc.h"
#include "transports/sockets/socket_rpc_stream.h"

namespace {

constexpr char Host[] = "127.0.0.1";
constexpr std::uint16_t Port = 111;

}  // namespace

std::unique_ptr<IRpcClientStream> CPortmapConnector::Connect() {
  return ConnectRpcStream(Host, Port, [this](const boost::shared_ptr<CSocketIP>& socket) { Keep(socket); });
}

void CPortmapConnector::Keep(const boost::shared_ptr<CSocketIP>& socket) {
  const std::lock_guard guard(lock_);
  if (aborted_)
    throw exc::runtime_exc_t(std::string("The service is stopping."));
  socket_ = socket;
}

void CPortmapConnector::Abort() noexcept {
  boost::shared_ptr<CSocketIP> socket;
  {
    const std::lock_guard guard(lock_);
    aborted_ = true;
    socket = socket_.lock();
  }
  // Held here, so that its descriptor is still its own.
  if (socket)
    socket->Abort();
}
