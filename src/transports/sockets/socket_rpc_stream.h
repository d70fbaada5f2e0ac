// A socket as the stream of an RPC client.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "rpc/rpc_client_stream.h"
#include "transports/sockets/socket_ip.h"

/// Passes on to the socket. One thread at a time.
class CSocketRpcStream : public IRpcClientStream {
 public:
  explicit CSocketRpcStream(boost::shared_ptr<CSocketIP> socket);
  void Send(const void* data, std::size_t length) override;
  void Recv(void* data, std::size_t length, std::uint32_t timeoutSec) override;

 private:
  const boost::shared_ptr<CSocketIP> socket_;
};

/// Told of each socket before it connects; what it throws ends the attempt.
using on_rpc_socket_t = std::function<void(const boost::shared_ptr<CSocketIP>& socket)>;

/// A new TCP connection, from a reserved source port where this process may bind one: portmappers take SET and UNSET
/// from there alone. Throws what CSocketIP::Connect throws.
std::unique_ptr<IRpcClientStream> ConnectRpcStream(const std::string& address, std::uint16_t port,
                                                   const on_rpc_socket_t& onSocket = {});
