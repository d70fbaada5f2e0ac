#include "transports/sockets/congestion_control.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "support/captured_log.h"
#include "transports/sockets/socket_ip.h"
#include "unit/transports/pacing.h"

namespace {

using test::CapturedLog;
using test::ChooseCongestionControl;

TEST(CongestionControlTest, WhatDoesNotPaceStays) {
  const CapturedLog log;
  const CSocketIP listener(true);
  // Every system has one of them that everyone may choose.
  ASSERT_TRUE(ChooseCongestionControl(listener.Socket(), "reno") ||
              ChooseCongestionControl(listener.Socket(), "cubic"));
  const std::string chosen = CongestionControl(listener.Socket());
  AvoidPacing(listener.Socket());
  EXPECT_EQ(CongestionControl(listener.Socket()), chosen);
  EXPECT_TRUE(log.Texts("Info").empty());
}

TEST(CongestionControlTest, WhatPacesIsReplacedForTheConnectionsToo) {
  const CapturedLog log;
  const CSocketIP listener(true);
  // A system that has no such algorithm has nothing to replace.
  ChooseCongestionControl(listener.Socket(), "bbr");
  const std::string before = CongestionControl(listener.Socket());
  const bool paces = before.starts_with("bbr");
  AvoidPacing(listener.Socket());
  const std::string chosen = CongestionControl(listener.Socket());
  EXPECT_EQ(log.Texts("Info").size(), paces ? 1U : 0U);
  if (paces) {
    EXPECT_TRUE(chosen == "cubic" || chosen == "reno") << chosen;
  } else {
    EXPECT_EQ(chosen, before);
  }

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener.Socket(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  ASSERT_EQ(::listen(listener.Socket(), 1), 0);
  ASSERT_EQ(::getsockname(listener.Socket(), reinterpret_cast<sockaddr*>(&address), &length), 0);
  CSocketIP client(true);
  client.Connect("127.0.0.1", ntohs(address.sin_port));
  const int accepted = ::accept4(listener.Socket(), nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_GE(accepted, 0);
  const CSocketIP connection(platform::descriptor_t(accepted), true);
  EXPECT_EQ(CongestionControl(accepted), chosen);
}

TEST(CongestionControlTest, WhatIsNoTcpSocketHasNone) {
  const CapturedLog log;
  const CSocketIP datagrams(false);
  EXPECT_EQ(CongestionControl(datagrams.Socket()), "");
  AvoidPacing(datagrams.Socket());
  EXPECT_TRUE(log.Texts("Info").empty());
}

}  // namespace
