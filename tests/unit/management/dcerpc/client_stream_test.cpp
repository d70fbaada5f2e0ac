#include "management/dcerpc/client_stream.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "foundation/exc.h"
#include "management/dcerpc/endpoint_socket.h"
#include "support/failure_text.h"
#include "support/temp_dir.h"

using dcerpc::bytes_t;
using dcerpc::CSocketStream;
using testing::HasSubstr;

namespace {

using namespace std::chrono_literals;
using test::FailureOf;

class ClientStreamTest : public testing::Test {
 protected:
  ClientStreamTest() {
    std::array<int, 2> pair{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    ours_ = platform::descriptor_t(pair[0]);
    peer_ = platform::descriptor_t(pair[1]);
  }

  platform::descriptor_t ours_{-1};
  platform::descriptor_t peer_{-1};
  bytes_t buffer_ = bytes_t(4);
};

TEST_F(ClientStreamTest, ReceivesWhatComesInParts) {
  CSocketStream stream(std::move(ours_), 0ms);
  std::thread sender([this] {
    for (const char byte : {'a', 'b', 'c', 'd'})
      EXPECT_EQ(::write(peer_.Get(), &byte, 1), 1);
  });
  stream.Receive(buffer_);
  sender.join();
  EXPECT_EQ(buffer_, (bytes_t{'a', 'b', 'c', 'd'}));
}

TEST_F(ClientStreamTest, SendsMoreThanTheSocketHolds) {
  CSocketStream stream(std::move(ours_), 0ms);
  const bytes_t large(4 << 20, 7);
  std::size_t got = 0;
  std::thread receiver([&] {
    bytes_t part(65536);
    for (ssize_t size = 1; got < large.size() && size > 0; got += static_cast<std::size_t>(size))
      size = ::read(peer_.Get(), part.data(), part.size());
  });
  stream.Send(large);
  receiver.join();
  EXPECT_EQ(got, large.size());
}

TEST_F(ClientStreamTest, APeerThatGoesIsAFailure) {
  CSocketStream stream(std::move(ours_), 0ms);
  EXPECT_EQ(::write(peer_.Get(), "ab", 2), 2);
  peer_ = platform::descriptor_t(-1);
  EXPECT_EQ(FailureOf([&] { stream.Receive(buffer_); }), "The service closed the connection.");
  EXPECT_THAT(FailureOf([&] { stream.Send(buffer_); }), HasSubstr("Failed to send to the service."));
}

TEST_F(ClientStreamTest, SilenceEndsAtTheLimit) {
  CSocketStream stream(std::move(ours_), 20ms);
  EXPECT_THAT(FailureOf([&] { stream.Receive(buffer_); }), HasSubstr("The service did not answer within"));
  EXPECT_THAT(FailureOf([&] { stream.Send(bytes_t(64 << 20)); }), HasSubstr("The service did not answer within"));
}

TEST(ClientStreamConnect, SaysWhereNobodyListens) {
  const test::TempDir folder;
  EXPECT_THAT(FailureOf([&] { dcerpc::ConnectUnix(folder / "none", 1s); }),
              HasSubstr("Failed to connect to the service. Endpoint: [unix:" + (folder / "none") + "]."));
  EXPECT_THAT(FailureOf([] { dcerpc::ConnectUnix(std::string(200, 'x'), 1s); }), HasSubstr("too long for a socket"));
  EXPECT_THAT(FailureOf([] { dcerpc::ConnectUnix("", 1s); }), HasSubstr("empty"));
}

TEST(ClientStreamConnect, ReachesATcpListener) {
  dcerpc::SListeningSocket socket;
  ASSERT_EQ(dcerpc::ListenTcp(0, socket), 0U);
  const auto port = static_cast<std::uint16_t>(std::stoul(socket.address));
  EXPECT_NE(dcerpc::ConnectTcp("127.0.0.1", port, 5s), nullptr);
  socket.descriptor = platform::descriptor_t(-1);
  EXPECT_THAT(FailureOf([port] { dcerpc::ConnectTcp("127.0.0.1", port, 5s); }),
              HasSubstr("Failed to connect to the service. Endpoint: [tcp:127.0.0.1:" + std::to_string(port) + "]."));
}

}  // namespace
