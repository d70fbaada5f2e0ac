#include "management/dcerpc/endpoint_mapper.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "management/dcerpc/invoker_stubs.h"
#include "management/dcerpc/rpc_runtime.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "unit/management/dcerpc/fake_interface.h"
#include "unit/management/dcerpc/fake_mapper.h"

namespace dcerpc {
namespace {

using platform::error_t;
using platform::error::Success;
using test::FakeInterface;
using test::FakeMapper;
using Server = test::MapperServer;

using test::Patience;

bytes_t FromHex(std::string_view text) {
  bytes_t bytes;
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == ' ') {
      ++i;
      continue;
    }
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
    i += 2;
  }
  return bytes;
}

// Written down by hand from the layout of towers and of the operations.
constexpr const char* TowerHex =
    "0500"
    "1300 0d 7ac0c2d1 89d9 cc48 a423 b73ecd518d40 0100  0200 0000"
    "1300 0d 045d888a eb1c c911 9fe8 08002b104860 0200  0200 0000"
    "0100 0b 0200 0000"
    "0100 07 0200 1811"
    "0100 09 0400 00000000";
constexpr const char* EntryHex =
    "01000000 01000000 00000000000000000000000000000000 00000200"
    "00000000 0e000000 4b656c766f20496e766f6b657200 0000"
    "4b000000 4b000000";

const SEndpointEntry Entry{InvokerInterfaceId(), 6161, {}, "Kelvo Invoker"};

class EndpointMapperTest : public testing::Test {
 protected:
  /// What the log tells at a level, one line a line.
  static std::string Lines(const test::CapturedLog& log, const char* level) {
    std::string all;
    for (const std::string& line : log.Texts(level))
      all += line + '\n';
    return all;
  }
  static bool TellsOfNone(const test::CapturedLog& log) {
    return Lines(log, "Info")
               .find(
                   "There is no endpoint mapper. RPC interface 'Kelvo Invoker' is found by its port "
                   "alone.") != std::string::npos;
  }
  static error_t Register(CRpcRuntime& runtime) {
    return runtime.RegisterEndpoint(InvokerInterfaceId(), "Kelvo Invoker", {"unix:/run/x", "ncacn_ip_tcp:6161"});
  }

  const test::TempDir folder_;
  const test::ScopedEnvironment environment_{"KELVO_RUNTIME_DIR", folder_ / "run"};
  const boost::shared_ptr<FakeMapper> mapper_ = boost::make_shared<FakeMapper>();
};

TEST_F(EndpointMapperTest, ATowerIsLaidOutAsWritten) {
  EXPECT_EQ(EncodeTower(Entry), FromHex(TowerHex));
  SEndpointEntry other = Entry;
  other.address = {10, 1, 2, 3};
  other.port = 135;
  other.interface.version = 0x00030002;
  const bytes_t tower = EncodeTower(other);
  EXPECT_EQ(bytes_t(tower.end() - 4, tower.end()), (bytes_t{10, 1, 2, 3}));
  EXPECT_EQ(bytes_t(tower.end() - 11, tower.end() - 9), (bytes_t{0, 135}));
  EXPECT_EQ(bytes_t(tower.begin() + 21, tower.begin() + 27), (bytes_t{2, 0, 2, 0, 3, 0}));
}

TEST_F(EndpointMapperTest, AnEntryIsLaidOutAsWritten) {
  EXPECT_EQ(EncodeEndpointEntry(Entry), FromHex(std::string(EntryHex) + TowerHex));
  // The annotation is a fixed array on the other side, its zero included.
  SEndpointEntry longName = Entry;
  longName.annotation = std::string(100, 'n');
  const bytes_t stub = EncodeEndpointEntry(longName);
  EXPECT_EQ(bytes_t(stub.begin() + 32, stub.begin() + 36), (bytes_t{64, 0, 0, 0}));
  EXPECT_EQ(stub[98], 'n');
  EXPECT_EQ(stub[99], 0);
}

TEST_F(EndpointMapperTest, TheRuntimeRegistersItsPortsAndTakesThemBack) {
  const Server server(mapper_);
  const test::CapturedLog log;
  CRpcRuntime runtime(nullptr, {}, server.Place());
  EXPECT_EQ(Register(runtime), Success);
  const FakeMapper::Seen inserted{FakeMapper::Insert, FromHex(std::string(EntryHex) + TowerHex + "00 01000000")};
  EXPECT_EQ(mapper_->Calls(), std::vector<FakeMapper::Seen>{inserted});
  EXPECT_NE(Lines(log, "Info").find("RPC interface 'Kelvo Invoker' is registered in the endpoint mapper."),
            std::string::npos);
  EXPECT_FALSE(TellsOfNone(log));
  const FakeMapper::Seen deleted{FakeMapper::Delete, FromHex(std::string(EntryHex) + TowerHex)};
  // Also by one that never came to listen, and only once.
  EXPECT_EQ(runtime.StopListening(), rpc_error::NotListening);
  EXPECT_EQ(runtime.StopListening(), rpc_error::NotListening);
  EXPECT_EQ(mapper_->Calls(), (std::vector<FakeMapper::Seen>{inserted, deleted}));
  EXPECT_TRUE(log.Texts("Warning").empty());
}

TEST_F(EndpointMapperTest, NobodyThereIsNoFailure) {
  SListeningSocket held;
  ASSERT_EQ(ListenTcp(0, held), Success);
  const auto port = static_cast<std::uint16_t>(std::stoi(held.address));
  held = {};
  const test::CapturedLog log;
  CRpcRuntime runtime(nullptr, {}, {port, Patience});
  EXPECT_EQ(Register(runtime), Success);
  EXPECT_TRUE(TellsOfNone(log));
  EXPECT_NE(Lines(log, "Info").find("Binding: [ncacn_ip_tcp:6161]."), std::string::npos);
  EXPECT_EQ(CEndpointMapper::Find({port, Patience}), nullptr);
}

TEST_F(EndpointMapperTest, AServerOfSomethingElseIsNoMapper) {
  const auto other = boost::make_shared<FakeInterface>();
  const Server server(other);
  const test::CapturedLog log;
  CRpcRuntime runtime(nullptr, {}, server.Place());
  EXPECT_EQ(Register(runtime), Success);
  EXPECT_TRUE(TellsOfNone(log));
  EXPECT_TRUE(other->Calls().empty());
}

TEST_F(EndpointMapperTest, WhoSaysNothingIsNoMapper) {
  SListeningSocket silent;
  ASSERT_EQ(ListenTcp(0, silent), Success);
  const auto port = static_cast<std::uint16_t>(std::stoi(silent.address));
  const test::CapturedLog log;
  CRpcRuntime runtime(nullptr, {}, {port, std::chrono::milliseconds(50)});
  EXPECT_EQ(Register(runtime), Success);
  EXPECT_TRUE(TellsOfNone(log));
}

TEST_F(EndpointMapperTest, AMapperThatHasGoneDoesNotHoldTheStop) {
  Server server(mapper_);
  const test::CapturedLog log;
  CRpcRuntime runtime(nullptr, {}, server.Place());
  ASSERT_EQ(runtime.UseAnyPort(), Success);
  EXPECT_EQ(Register(runtime), Success);
  ASSERT_EQ(runtime.Listen(), Success);
  server.Stop();
  EXPECT_EQ(runtime.StopListening(), Success);
  EXPECT_NE(Lines(log, "Warning").find("The endpoint mapper keeps what it was told of this service."),
            std::string::npos);
}

}  // namespace
}  // namespace dcerpc
