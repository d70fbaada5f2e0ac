#include "management/rpc_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>

#include "config/reg_keys.h"
#include "management/dcerpc/client.h"
#include "management/level_guard.h"
#include "platform/sqlite_registry.h"
#include "support/captured_log.h"
#include "support/manual_clock.h"
#include "support/temp_dir.h"
#include "unit/management/dcerpc/fake_interface.h"
#include "unit/management/dcerpc/fake_mapper.h"
#include "unit/management/dcerpc/fake_security.h"

namespace {

using dcerpc::auth_level_t;
using dcerpc::auth_type_t;
using platform::error_t;
using platform::error::Success;
using test::FakeInterface;
using test::FakeMapper;

/// Succeeds in everything but what it is told to fail.
class FakeRuntime : public dcerpc::IRpcRuntime {
 public:
  error_t UsePort(std::uint32_t port) override { return Do("UsePort " + std::to_string(port)); }
  error_t UseAnyPort() override { return Do("UseAnyPort"); }
  error_t UseLocalSocket() override { return Do("UseLocalSocket"); }
  error_t RegisterInterface(boost::shared_ptr<dcerpc::IRpcInterface>) override { return Do("RegisterInterface"); }
  error_t InquireBindings(std::vector<std::string>& bindings) override {
    bindings = {"somewhere"};
    return Do("InquireBindings");
  }
  error_t RegisterEndpoint(const dcerpc::SSyntaxId& interface, std::string_view name,
                           const std::vector<std::string>& bindings) override {
    EXPECT_EQ(interface, FakeInterface::Identity());
    return Do("RegisterEndpoint " + std::string(name) + ' ' + bindings.front());
  }
  error_t QualifiedHostName(std::string& name) override {
    name = "host.example.com";
    return Do("QualifiedHostName");
  }
  error_t MakeSpn(std::string_view serviceClass, std::string_view host, std::string& spn) override {
    spn = std::string(serviceClass) + '/' + std::string(host);
    return Do("MakeSpn");
  }
  void RegisterAuthentication(const std::string& spn, auth_type_t type) override {
    if (Do("RegisterAuthentication " + spn + ' ' + std::to_string(static_cast<int>(type))) != Success)
      throw exc::runtime_exc_t("The mechanism is missing.");
  }
  error_t Listen() override { return Do("Listen"); }
  error_t StopListening() override { return Do("StopListening"); }

  std::vector<std::string> done;
  std::map<std::string, error_t> failures;

 private:
  error_t Do(const std::string& what) {
    done.push_back(what);
    const auto failure = failures.find(what);
    return failure == failures.end() ? Success : failure->second;
  }
};

/// Time that a sleep lets pass at once.
class HurryingClock : public test::ManualClock {
 public:
  void Sleep(std::uint32_t milliseconds) override {
    pauses.push_back(milliseconds);
    Advance(milliseconds);
    if (whileAsleep)
      whileAsleep();
  }

  std::vector<std::uint32_t> pauses;
  std::function<void()> whileAsleep;
};

CRpcServerSettings StaticPort(std::uint32_t port) {
  CRpcServerSettings settings;
  settings.SetPort(true, port);
  return settings;
}

/// The texts of what the work throws, the cause first; empty when it throws nothing.
template <typename Work>
std::vector<std::string> TextsOf(const Work& work) {
  std::vector<std::string> texts;
  try {
    work();
  } catch (const exc::exc_base_t& failure) {
    for (const auto& message : failure.Messages())
      texts.push_back(message.text);
  }
  return texts;
}

class RpcServerTest : public testing::Test {
 protected:
  RpcServerTest() { platform::registry_t::SetInstance(&registry_); }
  ~RpcServerTest() override { platform::registry_t::SetInstance(nullptr); }

  static CRpcServerConfig Config(const CRpcServerSettings& settings = StaticPort(6161)) {
    return {settings, {{"Kelvo Invoker", boost::make_shared<FakeInterface>()}}, "KelvoNfsSvc"};
  }
  std::vector<std::string> TextsOfStart(const CRpcServerSettings& settings = StaticPort(6161)) {
    return TextsOf([&] { StartRpcListening(Config(settings), runtime_); });
  }
  /// The port that the log tells of a server without a static one.
  static std::uint16_t PortIn(const test::CapturedLog& log) {
    constexpr std::string_view Begin = "Free port for listening: [";
    for (const std::string& line : log.Texts()) {
      if (const std::size_t at = line.find(Begin); at != std::string::npos)
        return static_cast<std::uint16_t>(std::stoi(line.substr(at + Begin.size())));
    }
    ADD_FAILURE() << "No line tells the port.";
    return 0;
  }

  const test::TempDir folder_;
  const test::ScopedEnvironment environment_{"KELVO_RUNTIME_DIR", folder_ / "run"};
  platform::sqlite_registry_t registry_{folder_ / "registry.db"};
  FakeRuntime runtime_;
};

TEST_F(RpcServerTest, TheStartGoesThroughItsStepsInOrder) {
  const test::CapturedLog log;
  EXPECT_TRUE(TextsOfStart().empty());
  EXPECT_EQ(runtime_.done,
            (std::vector<std::string>{"UsePort 6161", "UseLocalSocket", "QualifiedHostName", "MakeSpn",
                                      "RegisterAuthentication KelvoNfsSvc/host.example.com 9", "RegisterInterface",
                                      "InquireBindings", "RegisterEndpoint Kelvo Invoker somewhere", "Listen"}));
  const std::vector<std::string> lines = log.Texts();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_NE(lines[0].find("Starting RPC listening."), std::string::npos);
  EXPECT_NE(lines[1].find("Specified port for listening: [6161]."), std::string::npos);
  EXPECT_NE(lines[2].find("FQDN of the computer: [host.example.com]."), std::string::npos);
  EXPECT_NE(lines[3].find("Service SPN: [KelvoNfsSvc/host.example.com]"), std::string::npos);
  EXPECT_NE(lines[4].find("RPC authentication records were initialized."), std::string::npos);
  EXPECT_NE(lines[5].find("RPC server is initialized."), std::string::npos);
  EXPECT_EQ(log.Texts("Info").size(), 6U);
}

TEST_F(RpcServerTest, WithoutAStaticPortAnyFreeOneIsUsed) {
  CRpcServerSettings settings;
  EXPECT_TRUE(TextsOfStart(settings).empty());
  EXPECT_EQ(runtime_.done.front(), "UseAnyPort");
  runtime_.failures = {{"UseAnyPort", platform::error::AccessDenied}};
  const std::vector<std::string> texts = TextsOfStart(settings);
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[1], "Failed to register RPC protocol sequences enabled for receiving remote calls.");
  EXPECT_EQ(texts.back(), "Failed to start RPC listening.");
}

TEST_F(RpcServerTest, APortThatStaysHeldIsTriedFiveTimes) {
  HurryingClock clock;
  const test::ScopedClock scoped(clock);
  const test::CapturedLog log;
  runtime_.failures = {{"UsePort 6161", dcerpc::endpoint_error::DuplicateEndpoint}};
  const std::vector<std::string> texts = TextsOfStart();
  EXPECT_EQ(clock.pauses, (std::vector<std::uint32_t>{1000, 1000, 1000, 1000}));
  EXPECT_EQ(runtime_.done, (std::vector<std::string>(5, "UsePort 6161")));
  ASSERT_EQ(texts.size(), 4U);
  EXPECT_EQ(texts[1], "Failed to register TCP/IP RPC endpoint. Port: [6161].");
  EXPECT_EQ(texts[2], "Error code: 1740");
  EXPECT_EQ(texts[3], "Failed to start RPC listening.");
  std::size_t waitingLines = 0;
  for (const std::string& line : log.Texts())
    waitingLines += line.find("Waiting for endpoint to be released") != std::string::npos ? 1 : 0;
  EXPECT_EQ(waitingLines, 1U);
}

TEST_F(RpcServerTest, OtherFailuresOfAPortAreNotTriedAgain) {
  runtime_.failures = {{"UsePort 6161", 10013}};
  const std::vector<std::string> texts = TextsOfStart();
  EXPECT_EQ(runtime_.done.size(), 1U);
  ASSERT_GE(texts.size(), 2U);
  EXPECT_EQ(texts[1], "Failed to register TCP/IP RPC endpoint. Port: [6161].");
}

TEST_F(RpcServerTest, APortThatIsReleasedIsTaken) {
  dcerpc::SListeningSocket holder;
  ASSERT_EQ(dcerpc::ListenTcp(0, holder), Success);
  const auto port = static_cast<std::uint32_t>(std::stoi(holder.address));
  HurryingClock clock;
  const test::ScopedClock scoped(clock);
  clock.whileAsleep = [&] { holder = {}; };
  dcerpc::CRpcRuntime runtime(nullptr);
  EXPECT_TRUE(TextsOf([&] { StartRpcListening(Config(StaticPort(port)), runtime); }).empty());
  EXPECT_EQ(clock.pauses.size(), 1U);
  EXPECT_EQ(runtime.StopListening(), Success);
}

TEST_F(RpcServerTest, WithoutNegotiateTheOthersAreTriedAndNoneStopsTheStart) {
  const test::CapturedLog log;
  const std::string spn = "RegisterAuthentication KelvoNfsSvc/host.example.com ";
  runtime_.failures = {{spn + "9", 1}, {spn + "10", 1}, {spn + "16", 1}};
  EXPECT_TRUE(TextsOfStart().empty());
  EXPECT_EQ(std::count(runtime_.done.begin(), runtime_.done.end(), spn + "10"), 1);
  EXPECT_EQ(std::count(runtime_.done.begin(), runtime_.done.end(), spn + "16"), 1);
  EXPECT_EQ(runtime_.done.back(), "Listen");
  std::string errors;
  for (const std::string& line : log.Texts("Error"))
    errors += line + '\n';
  std::size_t from = 0;
  for (const char* name : {"Negotiate", "WinNT", "Kerberos"}) {
    const std::string line =
        exc::FormatText("Unable to register service authentication records with %1 security provider.", name);
    from = errors.find(line, from);
    EXPECT_NE(from, std::string::npos) << name;
  }
  EXPECT_NE(errors.find("The mechanism is missing."), std::string::npos);
}

TEST_F(RpcServerTest, EachStepThatFailsSaysSo) {
  struct Row {
    const char* step;
    std::vector<std::string> texts;
  };
  const std::vector<Row> rows{
      {"UseLocalSocket", {"Failed to register local RPC endpoint. Path: [" + (folder_ / "run/management") + "]."}},
      {"QualifiedHostName", {"Failed to retrieve fully qualified computer name (FQDN)."}},
      {"MakeSpn",
       {"Failed to construct a service principal name (SPN) that identifies a service instance. Computer FQDN: "
        "[host.example.com]."}},
      {"RegisterInterface",
       {"Failed to process interface [Kelvo Invoker].", "Failed to register RPC interfaces with runtime library."}},
      {"InquireBindings",
       {"Failed to enumerate the binding handles over which remote procedure calls can be received."}},
      {"RegisterEndpoint Kelvo Invoker somewhere",
       {"Failed to process interface [Kelvo Invoker].",
        "Failed to register endpoints used by RPC interfaces in the endpoint mapper database."}},
      {"Listen", {"Failed to signal RPC runtime to listen for remote function calls."}},
  };
  for (const Row& row : rows) {
    const test::CapturedLog log;
    runtime_.failures = {{row.step, platform::error::AccessDenied}};
    // Behind the system's sentence, and around the number.
    std::vector<std::string> expected{"Access is denied.", row.texts.front(), "Error code: 5"};
    expected.insert(expected.end(), row.texts.begin() + 1, row.texts.end());
    expected.emplace_back("Failed to start RPC listening.");
    EXPECT_EQ(TextsOfStart(), expected) << row.step;
    EXPECT_NE(log.Texts().back().find("Starting RPC listening. Failed."), std::string::npos);
  }
}

TEST_F(RpcServerTest, WhatIsThereAlreadyIsNoFailure) {
  const test::CapturedLog log;
  runtime_.failures = {{"RegisterInterface", dcerpc::rpc_error::TypeAlreadyRegistered},
                       {"Listen", dcerpc::rpc_error::AlreadyListening}};
  EXPECT_TRUE(TextsOfStart().empty());
  std::string lines;
  for (const std::string& line : log.Texts("Info"))
    lines += line + '\n';
  EXPECT_NE(lines.find("RPC interface 'Kelvo Invoker' already registered in RPC runtime."), std::string::npos);
  ASSERT_EQ(log.Texts("Warning").size(), 1U);
  EXPECT_NE(log.Texts("Warning").front().find("RPC server listening is already launched."), std::string::npos);
}

TEST_F(RpcServerTest, TheStopSaysWhatItDoes) {
  const test::CapturedLog log;
  StopRpcListening(runtime_);
  ASSERT_EQ(log.Texts().size(), 2U);
  EXPECT_NE(log.Texts()[0].find("Stopping RPC server."), std::string::npos);
  EXPECT_NE(log.Texts()[1].find("Server was successfully stopped."), std::string::npos);
  runtime_.failures = {{"StopListening", dcerpc::rpc_error::NotListening}};
  EXPECT_EQ(TextsOf([&] { StopRpcListening(runtime_); }).back(), "Failed to stop RPC server.");
}

TEST_F(RpcServerTest, TheServerOfTheProcessServesOnBothEndpoints) {
  const test::CapturedLog log;
  const auto invoker = boost::make_shared<FakeInterface>();
  InitRpcServer(CRpcServerSettings(), invoker, boost::make_shared<test::FakeSecurityProvider>());
  const std::uint16_t port = PortIn(log);
  EXPECT_GT(invoker.use_count(), 1);
  constexpr std::chrono::milliseconds NoLimit{0};
  const dcerpc::bytes_t stub = test::Bytes("stub");
  {
    dcerpc::CRpcClient remote(dcerpc::ConnectTcp("127.0.0.1", port, NoLimit), invoker->Id());
    EXPECT_EQ(remote.Call(FakeInterface::Echo, stub).bytes, stub);
    dcerpc::CRpcClient local(dcerpc::ConnectUnix(dcerpc::LocalSocketPath(), NoLimit), invoker->Id());
    EXPECT_EQ(local.Call(FakeInterface::Echo, stub).bytes, stub);
  }
  ShutdownRpcServer();
  EXPECT_EQ(invoker.use_count(), 1);
  EXPECT_THROW(dcerpc::ConnectUnix(dcerpc::LocalSocketPath(), NoLimit), exc::exc_base_t);
  // What was never started, or was stopped, needs no stop; and it can start again.
  ShutdownRpcServer();
  InitRpcServer(CRpcServerSettings(), invoker, nullptr);
  ShutdownRpcServer();
}

TEST_F(RpcServerTest, AFailedStartKeepsNothing) {
  const auto invoker = boost::make_shared<FakeInterface>();
  // A file in the place of the folder.
  std::ofstream(folder_ / "file") << "no folder";
  const test::ScopedEnvironment environment("KELVO_RUNTIME_DIR", folder_ / "file");
  const std::vector<std::string> texts = TextsOf([&] { InitRpcServer(CRpcServerSettings(), invoker, nullptr); });
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.back(), "Failed to initialize 'NFS' RPC interface.");
  EXPECT_EQ(texts[texts.size() - 2], "Failed to start RPC listening.");
  EXPECT_EQ(invoker.use_count(), 1);
  ShutdownRpcServer();
}

TEST_F(RpcServerTest, ASecondStartIsRefused) {
  const auto invoker = boost::make_shared<FakeInterface>();
  InitRpcServer(CRpcServerSettings(), invoker, nullptr);
  EXPECT_EQ(TextsOf([&] { InitRpcServer(CRpcServerSettings(), invoker, nullptr); }).back(),
            "Failed to initialize 'NFS' RPC interface.");
  ShutdownRpcServer();
}

TEST_F(RpcServerTest, TheStartRegistersInAnEndpointMapperAndTheStopWithdraws) {
  const auto mapper = boost::make_shared<FakeMapper>();
  const test::MapperServer server(mapper);
  {
    dcerpc::CRpcRuntime runtime(nullptr, {}, server.Place());
    StartRpcListening(Config({}), runtime);
    ASSERT_EQ(mapper->Calls().size(), 1U);
    StopRpcListening(runtime);
  }
  ASSERT_EQ(mapper->Calls().size(), 2U);
  EXPECT_EQ(mapper->Calls()[1].opnum, FakeMapper::Delete);
}

TEST_F(RpcServerTest, AnEndpointMapperThatRefusesFailsTheStart) {
  const auto mapper = boost::make_shared<FakeMapper>();
  const test::MapperServer server(mapper);
  const auto textsOfStart = [&] {
    dcerpc::CRpcRuntime runtime(nullptr, {}, server.Place());
    return TextsOf([&] { StartRpcListening(Config({}), runtime); });
  };
  const std::vector<std::string> chained{
      "Access is denied.", "Failed to process interface [Kelvo Invoker].", "Error code: 5",
      "Failed to register endpoints used by RPC interfaces in the endpoint mapper database.",
      "Failed to start RPC listening."};
  const test::CapturedLog log;
  mapper->faultStatus = dcerpc::fault::AccessDenied;
  EXPECT_EQ(textsOfStart(), chained);
  mapper->faultStatus = 0;
  mapper->status = 5;
  EXPECT_EQ(textsOfStart(), chained);
  std::string warnings;
  for (const std::string& line : log.Texts("Warning"))
    warnings += line + '\n';
  EXPECT_NE(warnings.find("The endpoint mapper does not take the RPC interface 'Kelvo Invoker'."), std::string::npos);
  EXPECT_NE(warnings.find("The endpoint mapper refused the entry."), std::string::npos);
  // Nothing was taken, so nothing is withdrawn.
  for (const FakeMapper::Seen& call : mapper->Calls())
    EXPECT_EQ(call.opnum, FakeMapper::Insert);
}

TEST_F(RpcServerTest, TheMinimumLevelComesFromTheRegistry) {
  EXPECT_EQ(ReadMinimumAuthLevel(), auth_level_t::Connect);
  for (const std::uint32_t level : {2U, 4U, 5U, 6U}) {
    ASSERT_EQ(registry_.SetDword(regkeys::RpcSettings, "MinimumAuthLevel", level), Success);
    EXPECT_EQ(ReadMinimumAuthLevel(), static_cast<auth_level_t>(level));
  }
}

TEST_F(RpcServerTest, AMinimumLevelThatIsNoneIsTheHighest) {
  const auto expectHighest = [] {
    const test::CapturedLog log;
    EXPECT_EQ(ReadMinimumAuthLevel(), auth_level_t::Privacy);
    EXPECT_EQ(log.Texts("Warning").size(), 1U);
  };
  for (const std::uint32_t level : {0U, 1U, 7U, 262U}) {
    ASSERT_EQ(registry_.SetDword(regkeys::RpcSettings, "MinimumAuthLevel", level), Success);
    expectHighest();
  }
  ASSERT_EQ(registry_.SetText(regkeys::RpcSettings, "MinimumAuthLevel", "5"), Success);
  expectHighest();
  ASSERT_EQ(registry_.SetQword(regkeys::RpcSettings, "MinimumAuthLevel", 5), Success);
  expectHighest();
}

TEST_F(RpcServerTest, TheMinimumLevelGuardsCommandsAlone) {
  CLevelGuard guard(boost::make_shared<FakeInterface>(), auth_level_t::Integrity);
  const auto isDenied = [&](std::uint16_t opnum, const dcerpc::SCaller& caller) {
    try {
      guard.Call(opnum, {}, dcerpc::byte_order_t::Little, caller);
      return false;
    } catch (const dcerpc::fault_exc_t& failure) {
      EXPECT_EQ(failure.Status(), dcerpc::fault::AccessDenied);
      return true;
    }
  };
  const dcerpc::SCaller connect{"a", "a", "tcp", auth_level_t::Connect, true};
  const dcerpc::SCaller integrity{"a", "a", "tcp", auth_level_t::Integrity, true};
  const dcerpc::SCaller local{"a", "uid 1", "unix:1", auth_level_t::Privacy, true};
  EXPECT_TRUE(isDenied(0, connect));
  EXPECT_FALSE(isDenied(3, connect));
  EXPECT_FALSE(isDenied(0, integrity));
  EXPECT_FALSE(isDenied(0, local));
  // Words for those, not a fault.
  EXPECT_FALSE(isDenied(0, {}));
  EXPECT_EQ(guard.Id(), FakeInterface::Identity());
}

TEST_F(RpcServerTest, TheMinimumLevelOfTheRegistryRules) {
  ASSERT_EQ(registry_.SetDword(regkeys::Root, "MinimumAuthLevel", 6), Success);
  const auto invoker = boost::make_shared<FakeInterface>();
  const test::CapturedLog log;
  InitRpcServer(CRpcServerSettings(), invoker, boost::make_shared<test::FakeSecurityProvider>());
  // The fake's handshake of one leg: what matters is the level.
  std::unique_ptr<dcerpc::IClientStream> stream =
      dcerpc::ConnectTcp("127.0.0.1", PortIn(log), std::chrono::milliseconds(0));
  dcerpc::SPduHeader header;
  header.type = dcerpc::pdu_type_t::Bind;
  stream->Send(
      dcerpc::EncodeBind(header, {5840, 5840, 0, {{0, invoker->Id(), {dcerpc::NdrSyntax}}}},
                         dcerpc::SToken{{auth_type_t::Ntlm, auth_level_t::Connect, 0, 1}, test::Bytes("hello alone")}));
  const auto receive = [&] {
    dcerpc::bytes_t pdu(dcerpc::HeaderSize);
    stream->Receive(pdu);
    pdu.resize(dcerpc::DecodeHeader(pdu).fragmentLength);
    stream->Receive(std::span(pdu).subspan(dcerpc::HeaderSize));
    return pdu;
  };
  EXPECT_EQ(dcerpc::ParsePdu(receive()).header.type, dcerpc::pdu_type_t::BindAck);
  dcerpc::bytes_t request = dcerpc::EncodeRequestHead({}, {0, 0, 0, std::nullopt, {}});
  dcerpc::SetLengths(request, 0);
  stream->Send(request);
  const dcerpc::bytes_t answer = receive();
  ASSERT_EQ(dcerpc::ParsePdu(answer).header.type, dcerpc::pdu_type_t::Fault);
  EXPECT_EQ(dcerpc::DecodeFault(dcerpc::ParsePdu(answer)).status, dcerpc::fault::AccessDenied);
  ShutdownRpcServer();
}

}  // namespace
