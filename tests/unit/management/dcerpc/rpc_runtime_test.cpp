#include "management/dcerpc/rpc_runtime.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "management/dcerpc/client.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "unit/management/dcerpc/fake_interface.h"
#include "unit/management/dcerpc/fake_security.h"
#include "unit/management/dcerpc/raw_peer.h"

namespace dcerpc {
namespace {

using platform::error::Success;
using test::Bytes;
using test::FakeInterface;

constexpr std::chrono::milliseconds NoLimit{0};

class RpcRuntimeTest : public testing::Test {
 protected:
  void Make(SRuntimeLimits limits = {}) {
    runtime_.reset();
    runtime_ = std::make_unique<CRpcRuntime>(boost::make_shared<test::FakeSecurityProvider>(), limits);
  }
  std::string PortOf() {
    std::vector<std::string> bindings;
    EXPECT_EQ(runtime_->InquireBindings(bindings), Success);
    return bindings.empty() ? "0" : bindings.front().substr(bindings.front().find(':') + 1);
  }
  static bool Exists(const std::string& path) { return std::filesystem::exists(path); }
  /// A socket file whose owner has gone without removing it.
  static void LeaveSocketFile(const std::string& path) {
    const platform::descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, path.c_str(), path.size());
    ASSERT_EQ(::bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  bytes_t BindPdu(const std::optional<SToken>& token = std::nullopt) const {
    SPduHeader header;
    header.type = pdu_type_t::Bind;
    return EncodeBind(header, {5840, 5840, 0, {{0, interface_->Id(), {NdrSyntax}}}}, token);
  }
  static bytes_t RequestPdu(std::uint16_t opnum) {
    bytes_t pdu = EncodeRequestHead({}, {0, 0, opnum, std::nullopt, {}});
    SetLengths(pdu, 0);
    return pdu;
  }

  const test::TempDir folder_;
  const test::ScopedEnvironment environment_{"KELVO_RUNTIME_DIR", folder_ / "run"};
  const std::string socketPath_ = folder_ / "run/management";
  const boost::shared_ptr<FakeInterface> interface_ = boost::make_shared<FakeInterface>();
  std::unique_ptr<CRpcRuntime> runtime_ = std::make_unique<CRpcRuntime>(nullptr);
};

TEST_F(RpcRuntimeTest, APortIsTakenOnce) {
  ASSERT_EQ(runtime_->UseAnyPort(), Success);
  const auto port = static_cast<std::uint32_t>(std::stoi(PortOf()));
  EXPECT_EQ(runtime_->UsePort(port), endpoint_error::DuplicateEndpoint);
  CRpcRuntime other(nullptr);
  EXPECT_EQ(other.UsePort(port), endpoint_error::DuplicateEndpoint);
  EXPECT_EQ(other.UsePort(65536), endpoint_error::InvalidEndpointFormat);
  EXPECT_EQ(other.UsePort(4294967295U), endpoint_error::InvalidEndpointFormat);
  runtime_.reset();
  EXPECT_EQ(other.UsePort(port), Success);
}

TEST_F(RpcRuntimeTest, ListensOnce) {
  std::vector<std::string> bindings;
  EXPECT_EQ(runtime_->InquireBindings(bindings), rpc_error::NoBindings);
  EXPECT_EQ(runtime_->Listen(), rpc_error::NoBindings);
  EXPECT_EQ(runtime_->StopListening(), rpc_error::NotListening);
  ASSERT_EQ(runtime_->UseAnyPort(), Success);
  ASSERT_EQ(runtime_->UseLocalSocket(), Success);
  const std::string port = PortOf();
  EXPECT_EQ(runtime_->Listen(), Success);
  EXPECT_EQ(runtime_->Listen(), rpc_error::AlreadyListening);
  EXPECT_EQ(runtime_->InquireBindings(bindings), Success);
  EXPECT_EQ(bindings, (std::vector<std::string>{"ncacn_ip_tcp:" + port, "unix:" + socketPath_}));
  EXPECT_EQ(runtime_->StopListening(), Success);
  EXPECT_EQ(runtime_->StopListening(), rpc_error::NotListening);
}

TEST_F(RpcRuntimeTest, AnInterfaceIsRegisteredOnce) {
  EXPECT_EQ(runtime_->RegisterInterface(interface_), Success);
  EXPECT_EQ(runtime_->RegisterInterface(boost::make_shared<FakeInterface>()), rpc_error::TypeAlreadyRegistered);
  EXPECT_EQ(runtime_->RegisterInterface(nullptr), platform::error::InvalidParameter);
}

TEST_F(RpcRuntimeTest, WhoConnectsBeforeItListensWaits) {
  ASSERT_EQ(runtime_->UseAnyPort(), Success);
  test::RawPeer peer(PortOf());
  peer.Send(BindPdu());
  ASSERT_EQ(runtime_->RegisterInterface(interface_), Success);
  ASSERT_EQ(runtime_->Listen(), Success);
  const bytes_t answer = peer.Receive();
  EXPECT_EQ(DecodeBindAck(ParsePdu(answer)).results.front().result, SContextResult::Acceptance);
}

TEST_F(RpcRuntimeTest, TheLocalSocketIsForAdministrators) {
  ASSERT_EQ(runtime_->UseLocalSocket(), Success);
  struct stat info {};
  ASSERT_EQ(::lstat(socketPath_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777, 0660U);
  ASSERT_EQ(::stat((folder_ / "run").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755U);
  runtime_.reset();
  EXPECT_FALSE(Exists(socketPath_));
}

TEST_F(RpcRuntimeTest, ALocalSocketThatIsLeftOverIsReplaced) {
  std::filesystem::create_directory(folder_ / "run");
  LeaveSocketFile(socketPath_);
  ASSERT_EQ(runtime_->UseLocalSocket(), Success);
  ASSERT_EQ(runtime_->RegisterInterface(interface_), Success);
  ASSERT_EQ(runtime_->Listen(), Success);
  CRpcClient client(ConnectUnix(socketPath_, NoLimit), interface_->Id());
  EXPECT_EQ(client.Call(FakeInterface::Echo, Bytes("a")).bytes, Bytes("a"));
  EXPECT_EQ(runtime_->StopListening(), Success);
  EXPECT_FALSE(Exists(socketPath_));
}

TEST_F(RpcRuntimeTest, ALocalSocketInUseIsNotTakenAway) {
  CRpcRuntime other(nullptr);
  ASSERT_EQ(other.UseLocalSocket(), Success);
  EXPECT_EQ(runtime_->UseLocalSocket(), endpoint_error::DuplicateEndpoint);
  runtime_.reset();
  EXPECT_TRUE(Exists(socketPath_));
}

TEST_F(RpcRuntimeTest, WhatIsNoSocketStays) {
  std::filesystem::create_directory(folder_ / "run");
  std::ofstream(socketPath_) << "precious";
  EXPECT_EQ(runtime_->UseLocalSocket(), platform::error::InvalidHandle);
  EXPECT_TRUE(Exists(socketPath_));
}

TEST_F(RpcRuntimeTest, AnothersSocketFileIsNotRemoved) {
  ASSERT_EQ(runtime_->UseLocalSocket(), Success);
  std::filesystem::rename(socketPath_, folder_ / "kept");
  LeaveSocketFile(socketPath_);
  runtime_.reset();
  EXPECT_TRUE(Exists(socketPath_));
}

TEST_F(RpcRuntimeTest, ALongRuntimeFolderHasALocalSocket) {
  const std::string deep = folder_ / std::string(150, 'd');
  std::filesystem::create_directory(deep);
  const test::ScopedEnvironment environment("KELVO_RUNTIME_DIR", deep);
  ASSERT_EQ(runtime_->UseLocalSocket(), Success);
  EXPECT_TRUE(Exists(deep + "/management"));
  CRpcRuntime other(nullptr);
  EXPECT_EQ(other.UseLocalSocket(), endpoint_error::DuplicateEndpoint);
  runtime_.reset();
  EXPECT_FALSE(Exists(deep + "/management"));
}

TEST_F(RpcRuntimeTest, AuthenticationIsOfferedOnceItIsRegistered) {
  const SToken token{{auth_type_t::Ntlm, auth_level_t::Connect, 0, 1}, Bytes("hello alone")};
  for (const bool isRegistered : {false, true}) {
    Make();
    ASSERT_EQ(runtime_->UseAnyPort(), Success);
    ASSERT_EQ(runtime_->RegisterInterface(interface_), Success);
    if (isRegistered)
      runtime_->RegisterAuthentication("spn", auth_type_t::Negotiate);
    const std::string port = PortOf();
    ASSERT_EQ(runtime_->Listen(), Success);
    test::RawPeer peer(port);
    peer.Send(BindPdu(token));
    EXPECT_EQ(ParsePdu(peer.Receive()).header.type, isRegistered ? pdu_type_t::BindAck : pdu_type_t::BindNak);
  }
  EXPECT_THROW(CRpcRuntime(nullptr).RegisterAuthentication("spn", auth_type_t::Negotiate), exc::runtime_exc_t);
}

TEST_F(RpcRuntimeTest, LocalCallersNeedNoToken) {
  Make();
  ASSERT_EQ(runtime_->UseLocalSocket(), Success);
  ASSERT_EQ(runtime_->RegisterInterface(interface_), Success);
  runtime_->RegisterAuthentication("spn", auth_type_t::Negotiate);
  ASSERT_EQ(runtime_->Listen(), Success);
  CRpcClient client(ConnectUnix(socketPath_, NoLimit), interface_->Id());
  client.Call(FakeInterface::WhoAmI, {});
  EXPECT_TRUE(interface_->Calls().back().caller.authenticated);
  EXPECT_EQ(interface_->Calls().back().caller.level, auth_level_t::Privacy);
}

TEST_F(RpcRuntimeTest, NamesOfTheService) {
  std::string name;
  EXPECT_EQ(runtime_->QualifiedHostName(name), Success);
  EXPECT_FALSE(name.empty());
  std::string spn;
  EXPECT_EQ(runtime_->MakeSpn("Class", "host.example.com", spn), Success);
  EXPECT_EQ(spn, "Class/host.example.com");
  EXPECT_EQ(runtime_->MakeSpn("Class", "", spn), platform::error::InvalidParameter);
}

TEST_F(RpcRuntimeTest, CallsBeyondTheLimitWaitForTheirTurn) {
  constexpr int Callers = 1300;
  constexpr int Limit = SRuntimeLimits::DefaultCalls;
  rlimit files{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &files), 0);
  ASSERT_EQ(runtime_->UseAnyPort(), Success);
  ASSERT_EQ(runtime_->RegisterInterface(interface_), Success);
  const std::string port = PortOf();
  ASSERT_EQ(runtime_->Listen(), Success);
  std::vector<test::RawPeer> peers(Callers);
  for (test::RawPeer& peer : peers) {
    peer.Connect(port);
    peer.Send(BindPdu());
    EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::BindAck);
    peer.Send(RequestPdu(FakeInterface::Wait));
  }
  interface_->WaitForCallers(Limit);
  interface_->Release();
  for (test::RawPeer& peer : peers)
    EXPECT_EQ(ParsePdu(peer.Receive()).header.type, pdu_type_t::Response);
  EXPECT_EQ(interface_->MostWaiting(), Limit);
}

TEST_F(RpcRuntimeTest, TheStopRefusesCallsThatWait) {
  SRuntimeLimits limits;
  limits.calls = 1;
  Make(limits);
  ASSERT_EQ(runtime_->UseAnyPort(), Success);
  ASSERT_EQ(runtime_->RegisterInterface(interface_), Success);
  const std::string port = PortOf();
  ASSERT_EQ(runtime_->Listen(), Success);
  test::RawPeer running(port);
  running.Send(BindPdu());
  running.Receive();
  running.Send(RequestPdu(FakeInterface::Wait));
  interface_->WaitForCallers(1);
  test::RawPeer waiting(port);
  waiting.Send(BindPdu());
  waiting.Receive();
  waiting.Send(RequestPdu(FakeInterface::Echo));
  std::thread stopper([this] { EXPECT_EQ(runtime_->StopListening(), Success); });
  // Either its request was read, and is refused, or it was not.
  const bytes_t refusal = waiting.Receive();
  if (!refusal.empty()) {
    EXPECT_EQ(DecodeFault(ParsePdu(refusal)).status, fault::ServerTooBusy);
  }
  interface_->Release();
  stopper.join();
  EXPECT_EQ(ParsePdu(running.Receive()).header.type, pdu_type_t::Response);
  EXPECT_EQ(interface_->Calls().size(), 1U);
}

}  // namespace
}  // namespace dcerpc
