#include "transports/sockets/socket_rpc_stream.h"

#include <boost/make_shared.hpp>
#include <utility>

CSocketRpcStream::CSocketRpcStream(boost::shared_ptr<CSocketIP> socket) : socket_(std::move(socket)) {}

void CSocketRpcStream::Send(const void* data, std::size_t length) {
  socket_->Send(data, length);
}

void CSocketRpcStream::Recv(void* data, std::size_t length, std::uint32_t timeoutSec) {
  socket_->Recv(data, length, timeoutSec);
}

std::unique_ptr<IRpcClientStream> ConnectRpcStream(const std::string& address, std::uint16_t port) {
  auto socket = boost::make_shared<CSocketIP>(true);
  socket->Connect(address, port);
  return std::make_unique<CSocketRpcStream>(std::move(socket));
}
