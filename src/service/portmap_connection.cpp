#include "service/portmap_connection.h"

#include <netinet/in.h>

#include "transports/sockets/socket_ip.h"

namespace {

constexpr char Host[] = "127.0.0.1";
constexpr std::uint16_t Port = 111;

class CPortmapConnection : public IRpcClientStream {
 public:
  CPortmapConnection() {
    // Without the privilege the port is any, which our own portmapper does not mind.
    static_cast<void>(::bindresvport(socket_.Socket(), nullptr));
    socket_.Connect(Host, Port);
  }

  void Send(const void* data, std::size_t length) override { socket_.Send(data, length); }
  void Recv(void* data, std::size_t length, std::uint32_t timeoutSec) override {
    socket_.Recv(data, length, timeoutSec);
  }

 private:
  CSocketIP socket_{true};
};

}  // namespace

std::unique_ptr<IRpcClientStream> ConnectToPortmapper() {
  return std::make_unique<CPortmapConnection>();
}
