#include "programs/portmap_registration.h"

#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "config/address_checker.h"
#include "foundation/exc.h"
#include "programs/ep_mapper_table.h"
#include "service/context/svc_context_holder.h"
#include "support/memory_rpc_stream.h"
#include "support/xdr_record.h"
#include "unit/programs/service_home.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Lets the stream outlive the registration, which owns what it is given.
class CBorrowedStream : public IRpcClientStream {
 public:
  explicit CBorrowedStream(IRpcClientStream& stream) : stream_(stream) {}
  void Send(const void* data, std::size_t length) override { stream_.Send(data, length); }
  void Recv(void* data, std::size_t length, std::uint32_t timeoutSec) override {
    stream_.Recv(data, length, timeoutSec);
  }

 private:
  IRpcClientStream& stream_;
};

/// A call of the portmapper as it was sent, without xid.
struct SAsked {
  std::uint32_t procedure;
  PortmapRecord record;
  bool operator==(const SAsked&) const = default;
};

class PortmapRegistration : public testing::Test {
 protected:
  void AddAnswer(std::uint32_t word) { stream_.AddReply(test::Words({1, 1, 0, 0, 0, 0, word})); }
  portmap_connector_t Connector() {
    return [this] { return std::make_unique<CBorrowedStream>(stream_); };
  }
  void Register() {
    RegisterOnPortmapProc(registration_, Connector(), [this] { ++signals_; });
  }

  std::vector<SAsked> Asked() const {
    constexpr std::size_t callWords = 1 + 10 + 4;
    const auto words = test::WordsOf(stream_.sent);
    std::vector<SAsked> out;
    for (std::size_t at = 0; at + callWords <= words.size(); at += callWords) {
      out.push_back({words[at + 6], {words[at + 11], words[at + 12], words[at + 13], words[at + 14]}});
    }
    return out;
  }

  test::CMemoryRpcStream stream_;
  PortRegistration registration_{1058, 0, 2049, 0};
  int signals_ = 0;
};

/// With the service's context published, as in service mode.
class PublishedRegistration : public PortmapRegistration {
 protected:
  PublishedRegistration() { CSvcContextHolder::Set(home_.context); }
  ~PublishedRegistration() override { CSvcContextHolder::Set({}); }

  test::SServiceHome home_;
};

TEST_F(PublishedRegistration, SetsBothPortsAndSignals) {
  AddAnswer(1);
  AddAnswer(1);
  Register();
  EXPECT_THAT(Asked(), ElementsAre(SAsked{1, {100005, 3, 6, 1058}}, SAsked{1, {100003, 3, 6, 2049}}));
  EXPECT_EQ(registration_.mountRegistered, 1);
  EXPECT_EQ(registration_.nfsRegistered, 1);
  EXPECT_EQ(signals_, 1);
  EXPECT_THAT(stream_.timeouts, testing::Each(30U));
}

TEST_F(PublishedRegistration, AdmitsItself) {
  AddAnswer(1);
  AddAnswer(1);
  Register();
  EXPECT_THAT(home_.context->GetAddressChecker()->ToString(), testing::HasSubstr("127.0.0.1"));
}

TEST_F(PublishedRegistration, RefusedMountPasses) {
  AddAnswer(0);
  AddAnswer(1);
  Register();
  EXPECT_EQ(registration_.mountRegistered, 0);
  EXPECT_EQ(registration_.nfsRegistered, 1);
  EXPECT_EQ(signals_, 1);
}

TEST_F(PublishedRegistration, MountWithoutAPortFails) {
  registration_.mountPort = 0;
  AddAnswer(1);
  AddAnswer(1);
  Register();
  EXPECT_EQ(Asked().size(), 1U);
  EXPECT_EQ(registration_.nfsRegistered, 0);
  EXPECT_EQ(signals_, 0);
}

TEST_F(PublishedRegistration, RefusedNfsFails) {
  AddAnswer(1);
  AddAnswer(0);
  Register();
  EXPECT_EQ(registration_.mountRegistered, 1);
  EXPECT_EQ(registration_.nfsRegistered, 0);
  EXPECT_EQ(signals_, 0);
}

TEST_F(PublishedRegistration, WhatIsRegisteredIsNotAskedAgain) {
  registration_.mountRegistered = 1;
  AddAnswer(1);
  Register();
  EXPECT_THAT(Asked(), ElementsAre(SAsked{1, {100003, 3, 6, 2049}}));
  EXPECT_EQ(signals_, 1);
}

TEST_F(PublishedRegistration, NobodyAnsweringIsSurvived) {
  Register();
  EXPECT_EQ(signals_, 0);
  RegisterOnPortmapProc(
      registration_,
      []() -> std::unique_ptr<IRpcClientStream> { throw exc::runtime_exc_t("Cannot connect to socket."); },
      [this] { ++signals_; });
  EXPECT_EQ(signals_, 0);
  EXPECT_EQ(registration_.mountRegistered, 0);
}

TEST_F(PortmapRegistration, WithoutAContextNothingIsAsked) {
  CSvcContextHolder::Set({});
  Register();
  EXPECT_THAT(stream_.sent, IsEmpty());
  EXPECT_EQ(signals_, 0);
}

TEST_F(PortmapRegistration, UnregisteringTakesBackWhatWasRegistered) {
  registration_ = {1058, 1, 2049, 1};
  AddAnswer(0);
  AddAnswer(1);
  UnregisterOnPortmap(registration_, Connector());
  EXPECT_THAT(Asked(), ElementsAre(SAsked{2, {100005, 3, 6, 1058}}, SAsked{2, {100003, 3, 6, 2049}}));
  EXPECT_EQ(registration_.mountRegistered, 0);
  EXPECT_EQ(registration_.nfsRegistered, 0);
}

TEST_F(PortmapRegistration, NothingRegisteredIsNothingToTakeBack) {
  UnregisterOnPortmap(registration_, Connector());
  EXPECT_THAT(stream_.sent, IsEmpty());
}

}  // namespace
