// A service whose management endpoint is to survive what a test does to it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <string>

#include "integration/support/dce_wire.h"
#include "integration/support/footprint.h"
#include "integration/support/service.h"

namespace test {

inline std::string Narrow(const std::u16string& text) {
  return {text.begin(), text.end()};
}

inline std::u16string Input(const std::string& arguments) {
  return Wide("<InputArguments>" + arguments + "</InputArguments>");
}

/// Settings, threads, descriptors and memory of the service are compared before and after each test.
class CManagementAttackTest : public testing::Test {
 protected:
  void SetUp() override {
    // For the callers here and, inherited, for those there.
    rlimit files{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    files.rlim_cur = files.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    service_.Start();
    if (HasFatalFailure())
      return;
    // What is made at the first call is made now.
    ServeGoodClients();
    settings_ = Settings();
    ASSERT_THAT(settings_, testing::HasSubstr("AllowedAddresses"));
    ASSERT_TRUE(WaitUntil([this] {
      const SFootprint now = Footprint();
      const bool isStill = now.threads == before_.threads && now.descriptors == before_.descriptors;
      before_ = now;
      return isStill;
    }));
  }

  /// After each test the service is as it was.
  void TearDown() override {
    if (!service_.IsRunning()) {
      ADD_FAILURE() << "the service has died";
      return;
    }
    ServeGoodClients();
    SFootprint after;
    EXPECT_TRUE(WaitUntil([&] {
      after = Footprint();
      return after.threads == before_.threads && after.descriptors == before_.descriptors;
    })) << after.threads
        << " threads instead of " << before_.threads << ", " << after.descriptors << " descriptors instead of "
        << before_.descriptors;
    EXPECT_LT(after.residentKiB, before_.residentKiB + growthKiB_);
    if (!changesSettings_) {
      EXPECT_EQ(Settings(), settings_);
    }
    // The log of a failure is printed, and nobody reads megabytes.
    constexpr std::uintmax_t Readable = std::uintmax_t{1} << 20;
    if (std::filesystem::file_size(service_.LogPath()) > Readable)
      std::filesystem::resize_file(service_.LogPath(), 0);
  }

  std::string SocketPath() const { return service_.Environment().at("KELVO_RUNTIME_DIR") + "/management"; }
  std::unique_ptr<CDceConnection> Local() const { return std::make_unique<CDceConnection>(SocketPath()); }
  std::string Settings() { return service_.Reg({"export"}).out; }

  void ServeGoodClients() {
    const SRpcResult result = Local()->Bind().DoRpc(u"GetParams", u"<InputArguments/>");
    EXPECT_TRUE(result.success);
    EXPECT_THAT(Narrow(result.output.value_or(u"")), testing::HasSubstr("<nfsPort value=\"2049\" />"));
    CDceConnection remote;
    remote.Bind().Send(Fragments(PingOpnum, NdrString(u"hello")));
    const std::optional<SDceAnswer> answer = remote.Answer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, dce_pdu_t::Response);
  }

  SFootprint Footprint() { return FootprintOf(service_.Process().Pid()); }

  CService service_;
  SFootprint before_;
  std::string settings_;
  /// How much memory a test may leave behind, the allocator's reserves included.
  std::size_t growthKiB_ = std::size_t{48} * 1024;
  bool changesSettings_ = false;
};

}  // namespace test
