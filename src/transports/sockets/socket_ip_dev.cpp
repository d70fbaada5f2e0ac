#include "transports/sockets/socket_ip_dev.h"

#include <utility>

CSocketIPDev::CSocketIPDev(boost::shared_ptr<CSocketIP> socket) : socket_(std::move(socket)) {}

std::uint64_t CSocketIPDev::Write(const void* data, std::uint64_t length) {
  socket_->Send(data, length, 0);
  return length;
}

std::uint64_t CSocketIPDev::Read(void* data, std::uint64_t length) {
  socket_->SetTimeoutSec(0);
  socket_->Recv(data, length);
  return length;
}
