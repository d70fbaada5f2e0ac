// Two connected sockets.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <exception>
#include <string>

#include "transports/sockets/socket_ip.h"

namespace test {

/// A listener on a loopback port of the system's choice.
class CListener {
 public:
  CListener() {
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    listen(socket_, 5);
    listener_ = boost::make_shared<CSocketIP>(platform::descriptor_t(socket_), false);
  }
  std::uint16_t Port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
  }
  boost::shared_ptr<CSocketIP> Accept() { return boost::make_shared<CSocketIP>(listener_->Accept(), true); }

 private:
  int socket_ = -1;
  boost::shared_ptr<CSocketIP> listener_;
};

class CSocketPairTest : public testing::Test {
 protected:
  CSocketPairTest() {
    CListener listener;
    client_ = boost::make_shared<CSocketIP>(true);
    client_->Connect("127.0.0.1", listener.Port());
    server_ = listener.Accept();
  }
  boost::shared_ptr<CSocketIP> client_;
  boost::shared_ptr<CSocketIP> server_;
};

inline std::string TextOf(const std::exception& failure) {
  return failure.what();
}

}  // namespace test
