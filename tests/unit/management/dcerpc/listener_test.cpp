#include "management/dcerpc/listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "management/dcerpc/client.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "unit/management/dcerpc/fake_interface.h"
#include "unit/management/dcerpc/fake_security.h"
#include "unit/management/dcerpc/raw_peer.h"

namespace dcerpc {
namespace {

using test::Bytes;
using test::FakeInterface;
using test::RawPeer;

constexpr std::chrono::milliseconds NoLimit{0};

class ListenerTest : public testing::Test {
 protected:
  ListenerTest() { settings_.association.interfaces.push_back(interface_); }

  void Start() {
    SListeningSocket socket;
    ASSERT_EQ(ListenTcp(0, socket), platform::error::Success);
    settings_.association.secondaryAddress = socket.address;
    listener_ = std::make_unique<CListener>(std::move(socket), settings_);
    listener_->Start();
  }
  void StartLocal() {
    SListeningSocket socket;
    ASSERT_EQ(ListenLocal(socket, file_), platform::error::Success);
    local_ = std::make_unique<CListener>(std::move(socket), settings_);
    local_->Start();
  }

  const std::string& Port() const { return listener_->Socket().address; }
  CRpcClient Client() const {
    return {ConnectTcp("127.0.0.1", static_cast<std::uint16_t>(std::stoi(Port())), NoLimit), interface_->Id()};
  }
  CRpcClient LocalClient() const { return {ConnectUnix(LocalSocketPath(), NoLimit), interface_->Id()}; }
  static std::string TextOf(const SStub& stub) { return {stub.bytes.begin(), stub.bytes.end()}; }

  bytes_t BindPdu() const {
    SPduHeader header;
    header.type = pdu_type_t::Bind;
    return EncodeBind(header, {5840, 5840, 0, {{0, interface_->Id(), {NdrSyntax}}}}, std::nullopt);
  }
  static bytes_t RequestPdu(std::uint16_t opnum, const bytes_t& stub,
                            std::uint8_t flags = pdu_flag::First | pdu_flag::Last) {
    SPduHeader header;
    header.flags = flags;
    bytes_t pdu = EncodeRequestHead(header, {0, 0, opnum, std::nullopt, {}});
    pdu.insert(pdu.end(), stub.begin(), stub.end());
    SetLengths(pdu, 0);
    return pdu;
  }

  const test::TempDir folder_;
  const test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", folder_ / "run"};
  const boost::shared_ptr<FakeInterface> interface_ = boost::make_shared<FakeInterface>();
  SListenerSettings settings_;
  CSocketFile file_;
  std::unique_ptr<CListener> listener_;
  std::unique_ptr<CListener> local_;
};

TEST_F(ListenerTest, ServesCallsOverTcp) {
  Start();
  CRpcClient client = Client();
  EXPECT_EQ(TextOf(client.Call(FakeInterface::Echo, Bytes("hello"))), "hello");
  EXPECT_EQ(TextOf(client.Call(FakeInterface::WhoAmI, {})), "||1|no");
  EXPECT_EQ(interface_->Calls().back().caller.origin.find("127.0.0.1:"), 0U);
  const bytes_t large(200000, 7);
  EXPECT_EQ(client.Call(FakeInterface::Echo, large).bytes, large);
  EXPECT_THROW(client.Call(FakeInterface::Fault, {}), fault_exc_t);
  EXPECT_EQ(TextOf(client.Call(FakeInterface::Echo, Bytes("still here"))), "still here");
}

TEST_F(ListenerTest, TheKernelProvesTheLocalCaller) {
  StartLocal();
  const passwd* own = ::getpwuid(::geteuid());
  ASSERT_NE(own, nullptr);
  CRpcClient client = LocalClient();
  EXPECT_EQ(TextOf(client.Call(FakeInterface::WhoAmI, {})),
            exc::FormatText("%1|uid %2|6|yes", own->pw_name, ::geteuid()));
  EXPECT_EQ(interface_->Calls().back().caller.origin, exc::FormatText("unix:%1", ::getpid()));
}

TEST_F(ListenerTest, TheNameOfAnotherUserIsTold) {
  if (::geteuid() != 0)
    GTEST_SKIP() << "Only root becomes another user.";
  StartLocal();
  ASSERT_EQ(::chmod(folder_.Path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(LocalSocketPath().c_str(), 0666), 0);
  ASSERT_EQ(::seteuid(2), 0);
  std::unique_ptr<IClientStream> stream = ConnectUnix(LocalSocketPath(), NoLimit);
  ASSERT_EQ(::seteuid(0), 0);
  CRpcClient client(std::move(stream), interface_->Id());
  EXPECT_EQ(TextOf(client.Call(FakeInterface::WhoAmI, {})), "bin|uid 2|6|yes");
}

TEST_F(ListenerTest, PdusMayComeInAnyPieces) {
  Start();
  RawPeer peer(Port());
  bytes_t both = BindPdu();
  for (const std::uint8_t byte : both)
    peer.Send({&byte, 1});
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindAck);
  // Two at once.
  both = RequestPdu(FakeInterface::Echo, Bytes("one"));
  const bytes_t second = RequestPdu(FakeInterface::Echo, Bytes("two"));
  both.insert(both.end(), second.begin(), second.end());
  peer.Send(both);
  EXPECT_EQ(ParsePdu(peer.Receive()).body.back(), 'e');
  EXPECT_EQ(ParsePdu(peer.Receive()).body.back(), 'o');
}

TEST_F(ListenerTest, APeerThatSpeaksAnotherProtocolIsClosed) {
  Start();
  RawPeer peer(Port());
  peer.Send(Bytes("GET / HTTP/1.1\r\nHost: somewhere\r\n\r\n"));
  EXPECT_TRUE(peer.Receive().empty());
  EXPECT_EQ(TextOf(Client().Call(FakeInterface::Echo, Bytes("a"))), "a");
}

TEST_F(ListenerTest, TheLastAnswerArrivesThoughMoreWasSent) {
  Start();
  RawPeer peer(Port());
  bytes_t bytes = BindPdu();
  bytes[0] = 4;
  bytes.resize(bytes.size() + 20000);
  peer.Send(bytes);
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindNak);
  EXPECT_TRUE(peer.Receive().empty());
}

TEST_F(ListenerTest, StalledPeersHoldNobodyUp) {
  Start();
  const bytes_t bind = BindPdu();
  std::vector<RawPeer> stalled(20);
  for (std::size_t i = 0; i < stalled.size(); ++i) {
    stalled[i].Connect(Port());
    stalled[i].Send(bytes_view_t(bind).first(i * 3));
  }
  EXPECT_EQ(TextOf(Client().Call(FakeInterface::Echo, Bytes("served"))), "served");
  listener_->Stop();
  for (RawPeer& peer : stalled)
    EXPECT_TRUE(peer.Receive().empty());
}

TEST_F(ListenerTest, APeerThatReadsNoAnswersHoldsNobodyUp) {
  settings_.limits.end = 50;
  Start();
  RawPeer peer(Port());
  peer.Send(BindPdu());
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindAck);
  EXPECT_GT(peer.Flood(RequestPdu(FakeInterface::Echo, bytes_t(60000)), 300), 60000U);
  EXPECT_EQ(TextOf(Client().Call(FakeInterface::Echo, Bytes("served"))), "served");
  listener_->Stop();
}

TEST_F(ListenerTest, APeerThatReadsNoAnswersIsGivenUp) {
  settings_.limits.send = 20;
  Start();
  RawPeer peer(Port());
  peer.Send(BindPdu());
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindAck);
  EXPECT_GT(peer.Flood(RequestPdu(FakeInterface::Echo, bytes_t(60000)), -1), 60000U);
}

TEST_F(ListenerTest, LatePeersLoseTheirConnection) {
  settings_.limits.pdu = 20;
  settings_.limits.idle = 20;
  Start();
  RawPeer silent(Port());
  RawPeer inHeader(Port());
  inHeader.Send(bytes_view_t(BindPdu()).first(7));
  RawPeer inBody(Port());
  inBody.Send(bytes_view_t(BindPdu()).first(30));
  EXPECT_TRUE(silent.Receive().empty());
  EXPECT_TRUE(inHeader.Receive().empty());
  EXPECT_TRUE(inBody.Receive().empty());
  RawPeer inRequest(Port());
  inRequest.Send(BindPdu());
  inRequest.Send(RequestPdu(FakeInterface::Echo, Bytes("a"), pdu_flag::First));
  inRequest.WaitForEnd();
  RawPeer idle(Port());
  idle.Send(BindPdu());
  idle.WaitForEnd();
  EXPECT_TRUE(interface_->Calls().empty());
}

TEST_F(ListenerTest, KnownCallersMayBeIdle) {
  settings_.limits.idle = 20;
  StartLocal();
  CRpcClient local = LocalClient();
  Start();
  RawPeer idle(Port());
  idle.Send(BindPdu());
  idle.WaitForEnd();
  EXPECT_EQ(TextOf(local.Call(FakeInterface::Echo, Bytes("still here"))), "still here");
}

TEST_F(ListenerTest, MoreConnectionsThanTheLimitWait) {
  settings_.maxConnections = 2;
  Start();
  std::optional<CRpcClient> first;
  first.emplace(ConnectTcp("127.0.0.1", static_cast<std::uint16_t>(std::stoi(Port())), NoLimit), interface_->Id());
  CRpcClient second = Client();
  RawPeer third(Port());
  third.Send(BindPdu());
  EXPECT_EQ(TextOf(first->Call(FakeInterface::Echo, Bytes("a"))), "a");
  EXPECT_FALSE(third.HasSomething());
  EXPECT_EQ(listener_->ConnectionCount(), 2U);
  first.reset();
  EXPECT_EQ(ParsePdu(third.Receive()).header.type, pdu_type_t::BindAck);
  EXPECT_EQ(TextOf(second.Call(FakeInterface::Echo, Bytes("b"))), "b");
}

TEST_F(ListenerTest, WithoutDescriptorsPeersWait) {
  const test::CapturedLog log;
  Start();
  RawPeer peer;
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit low = old;
  low.rlim_cur = 200;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  {
    std::vector<platform::descriptor_t> all;
    do {
      all.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (all.back().IsOpen());
    peer.Connect(Port());
    peer.Send(BindPdu());
    while (!log.Has("Management clients wait: Too many sockets are open."))
      std::this_thread::yield();
  }
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindAck);
}

TEST_F(ListenerTest, ARunningCallIsAnsweredAtTheStop) {
  Start();
  RawPeer peer(Port());
  peer.Send(BindPdu());
  peer.Send(RequestPdu(FakeInterface::Wait, {}));
  interface_->WaitForCallers(1);
  listener_->SignalStop();
  interface_->Release();
  listener_->Stop();
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindAck);
  EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::Response);
  EXPECT_TRUE(peer.Receive().empty());
}

}  // namespace
}  // namespace dcerpc
