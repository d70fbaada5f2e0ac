#include "transports/sockets/socket_rpc_stream.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "foundation/exc.h"

namespace {

constexpr platform::error_t AddressNotAvailable = 10049;

}  // namespace

CSocketRpcStream::CSocketRpcStream(boost::shared_ptr<CSocketIP> socket) : socket_(std::move(socket)) {}

void CSocketRpcStream::Send(const void* data, std::size_t length) {
  socket_->Send(data, length);
}

void CSocketRpcStream::Recv(void* data, std::size_t length, std::uint32_t timeoutSec) {
  socket_->Recv(data, length, timeoutSec);
}

std::unique_ptr<IRpcClientStream> ConnectRpcStream(const std::string& address, std::uint16_t port,
                                                   const on_rpc_socket_t& onSocket) {
  const auto make = [&onSocket] {
    auto made = boost::make_shared<CSocketIP>(true);
    if (onSocket)
      onSocket(made);
    return made;
  };
  auto socket = make();
  socket->BindReservedPort();
  try {
    socket->Connect(address, port);
  } catch (const exc::win_sys_exc_t& failure) {
    // The reserved port may still be held by an earlier connection to the same peer.
    if (failure.Code() != platform::error::WsaAddressInUse && failure.Code() != AddressNotAvailable)
      throw;
    socket = make();
    socket->Connect(address, port);
  }
  return std::make_unique<CSocketRpcStream>(socket);
}
