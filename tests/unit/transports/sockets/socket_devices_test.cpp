// The devices behind which a socket's transfers go.
#include <algorithm>
#include <boost/make_shared.hpp>
#include <string>
#include <vector>

#include "foundation/exc.h"
#include "transports/sockets/fast_socket_io_dev.h"
#include "transports/sockets/socket_ip_dev.h"
#include "unit/transports/sockets/socket_pair.h"

namespace {

using test::CSocketPairTest;
using test::TextOf;

/// Records the writes that reach it.
class CRecordingDev : public io::io_dev_t {
 public:
  std::uint64_t Write(const void* data, std::uint64_t length) override {
    if (fails)
      throw exc::runtime_exc_t("broken");
    writes.emplace_back(static_cast<const char*>(data), length);
    return length;
  }
  std::uint64_t Read(void* data, std::uint64_t length) override {
    std::fill_n(static_cast<char*>(data), length, 'r');
    return length;
  }
  std::vector<std::string> writes;
  bool fails = false;
};

TEST(CFastSocketIoDevTest, SmallWritesLeaveTogetherAndFullBuffersAtOnce) {
  const auto device = boost::make_shared<CRecordingDev>();
  {
    io::net::CFastSocketIoDev fast(device, 8);
    fast.Write("mark", 4);
    EXPECT_TRUE(device->writes.empty());
    fast.Write("0123456789", 10);
    EXPECT_EQ(device->writes, (std::vector<std::string>{"mark0123"}));
    char got[2];
    EXPECT_EQ(fast.Read(got, 2), 2U);
    EXPECT_EQ(got[0], 'r');
  }
  EXPECT_EQ(device->writes, (std::vector<std::string>{"mark0123", "456789"}));
}

TEST(CFastSocketIoDevTest, WhatFillsTheBufferSeveralTimesGoesPastIt) {
  const auto device = boost::make_shared<CRecordingDev>();
  {
    io::net::CFastSocketIoDev fast(device, 4);
    fast.Write("ab", 2);
    fast.Write("0123456789ABC", 13);
    EXPECT_EQ(device->writes, (std::vector<std::string>{"ab01", "23456789"}));
    fast.Write("D", 1);
    EXPECT_EQ(device->writes.back(), "ABCD");
    fast.Write("whole", 4);
    EXPECT_EQ(device->writes.back(), "whol");
  }
  EXPECT_EQ(device->writes.size(), 4U);
}

TEST(CFastSocketIoDevTest, ADestructorThatCannotWriteDoesNotThrow) {
  const auto device = boost::make_shared<CRecordingDev>();
  {
    io::net::CFastSocketIoDev fast(device, 8);
    fast.Write("left", 4);
    device->fails = true;
  }
  EXPECT_TRUE(device->writes.empty());
}

TEST_F(CSocketPairTest, SocketDevMovesAllBytes) {
  CSocketIPDev out(client_);
  CSocketIPDev in(server_);
  EXPECT_EQ(out.Write("0123456789", 10), 10U);
  std::string got(10, '\0');
  EXPECT_EQ(in.Read(got.data(), 10), 10U);
  EXPECT_EQ(got, "0123456789");
}

TEST_F(CSocketPairTest, SocketDevClearsTheLimit) {
  CSocketIPDev out(client_);
  CSocketIPDev in(server_);
  client_->SetTimeoutSec(7);
  server_->SetTimeoutSec(7);
  char byte = 'x';
  out.Write(&byte, 1);
  in.Read(&byte, 1);
  EXPECT_EQ(client_->TimeoutSec(), 0U);
  EXPECT_EQ(server_->TimeoutSec(), 0U);
}

/// Moves one byte less than it is asked to.
class CShortDev : public io::io_dev_t {
 public:
  std::uint64_t Write(const void*, std::uint64_t length) override { return length - 1; }
  std::uint64_t Read(void*, std::uint64_t length) override { return length - 1; }
};

TEST_F(CSocketPairTest, AShortTransferIsAFailure) {
  client_->SetDevices(nullptr, boost::make_shared<CShortDev>());
  char bytes[2] = {};
  try {
    client_->Send(bytes, 2);
    FAIL();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "CSosketIP::Send has failed.");
  }
  try {
    client_->Recv(bytes, 2);
    FAIL();
  } catch (const exc::runtime_exc_t& failure) {
    EXPECT_EQ(TextOf(failure), "CSosketIP::Recv has failed.");
  }
}

TEST_F(CSocketPairTest, TransfersGoThroughTheSecondDeviceWhenItIsSet) {
  const auto device = boost::make_shared<CRecordingDev>();
  client_->SetDevices(nullptr, device);
  client_->Send("through", 7);
  EXPECT_EQ(device->writes, (std::vector<std::string>{"through"}));
  char got = 0;
  client_->Recv(&got, 1);
  EXPECT_EQ(got, 'r');
}

}  // namespace
