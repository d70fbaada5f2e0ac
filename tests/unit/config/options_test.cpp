#include <algorithm>

#include "config/common_options.h"
#include "config/nfs_options.h"
#include "config/nfs_params.h"
#include "config/reg_options.h"
#include "config/rpc_server_settings.h"
#include "platform/process.h"
#include "unit/config/config_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using RegOptionsTest = test::ConfigFixture;

TEST_F(RegOptionsTest, WithoutAKeyTheDefaultsStandAndAreLogged) {
  const CRegOptions options(true);
  EXPECT_TRUE(options.IsAsyncTcp());
  EXPECT_FALSE(options.IsIpAuthDisabled());
  std::string path = "untouched";
  EXPECT_FALSE(options.GetPerfLogPath(path));
  EXPECT_EQ(path, "untouched");
  EXPECT_FALSE(HasKey(Root));
  EXPECT_THAT(log.Texts(), ElementsAre("NFS Server options:", "PerfLogPath = .", "AsyncTcp = true.",
                                       "QuillNFSDisableIPAuth = false."));
}

TEST_F(RegOptionsTest, ReadsWhatIsStored) {
  Put(Root, "PerfLogPath", std::string("/var/log/perf"));
  Put(Root, "AsyncTcp", 0U);
  Put(Root, "QuillNFSDisableIPAuth", 1U);
  const CRegOptions options(true);
  EXPECT_FALSE(options.IsAsyncTcp());
  EXPECT_TRUE(options.IsIpAuthDisabled());
  std::string path;
  EXPECT_TRUE(options.GetPerfLogPath(path));
  EXPECT_EQ(path, "/var/log/perf");
  EXPECT_THAT(log.Texts(), ElementsAre("NFS Server options:", "PerfLogPath = /var/log/perf.", "AsyncTcp = false.",
                                       "QuillNFSDisableIPAuth = true."));
}

TEST_F(RegOptionsTest, AnyNumberButZeroIsTrue) {
  Put(Root, "AsyncTcp", 2U);
  Put(Root, "QuillNFSDisableIPAuth", 4294967295U);
  const CRegOptions options(true);
  EXPECT_TRUE(options.IsAsyncTcp());
  EXPECT_TRUE(options.IsIpAuthDisabled());
}

TEST_F(RegOptionsTest, AValueOfAnotherTypeIsAbsent) {
  Put(Root, "PerfLogPath", 1U);
  Put(Root, "AsyncTcp", std::string("0"));
  ASSERT_EQ(registry.SetQword(Root, "QuillNFSDisableIPAuth", 1), 0U);
  const CRegOptions options(true);
  std::string path;
  EXPECT_FALSE(options.GetPerfLogPath(path));
  EXPECT_TRUE(options.IsAsyncTcp());
  EXPECT_FALSE(options.IsIpAuthDisabled());
}

TEST_F(RegOptionsTest, LoadTellsWhetherTheKeyOpened) {
  CRegOptions options(false);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_FALSE(options.Load());
  ASSERT_EQ(registry.CreateKey(Root), 0U);
  EXPECT_TRUE(options.Load());
  registry.Fail("FindKey", 1009);
  EXPECT_FALSE(options.Load());
}

class CommonOptionsTest : public test::ConfigFixture {
 protected:
  static constexpr const char* Key = R"(SOFTWARE\Kelvo\Kelvo Vault)";

  CCommonOptions options;
};

TEST_F(CommonOptionsTest, HasDefaults) {
  ASSERT_EQ(registry.CreateKey(Key), 0U);
  options.LoadOptions();
  EXPECT_EQ(options.registryPath, Key);
  EXPECT_EQ(options.xdrBufInitialSize, 128U);
  EXPECT_EQ(options.miniDumpModeType, "Normal");
  EXPECT_EQ(options.miniDumpModeMask, 0U);
  EXPECT_FALSE(options.outOfProcDumpGen);
  EXPECT_EQ(options.winFileWriteRetryCount, 50U);
  EXPECT_EQ(options.winFileWriteRetryMaxTimeoutMsec, 1000U);
  EXPECT_THAT(log.Texts(), ElementsAre("Loading options."));
}

TEST_F(CommonOptionsTest, AppliesAndReportsInTableOrder) {
  Put(Key, "outofprocdumpgen", 3U);
  Put(Key, "XDRBufInitialSize", 0U);
  Put(Key, "MiniDumpModeMask", 4294967295U);
  Put(Key, "MiniDumpModeType", std::string("Full"));
  Put(Key, "WinFileWriteRetryCount", 2U);
  Put(Key, "WinFileWriteRetryMaxTimeoutMsec", 3U);
  Put(Key, "PerfBufSize", 65536U);
  options.LoadOptions();
  EXPECT_EQ(options.xdrBufInitialSize, 0U);
  EXPECT_EQ(options.miniDumpModeType, "Full");
  EXPECT_EQ(options.miniDumpModeMask, 4294967295U);
  EXPECT_TRUE(options.outOfProcDumpGen);
  EXPECT_EQ(options.winFileWriteRetryCount, 2U);
  EXPECT_EQ(options.winFileWriteRetryMaxTimeoutMsec, 3U);
  EXPECT_EQ(options.perfBufSize, 65536U);
  EXPECT_THAT(
      log.Texts(),
      ElementsAre("Loading options.", "Non-default option 'PerfBufSize': 65536",
                  "Non-default option 'MiniDumpModeType': Full", "Non-default option 'MiniDumpModeMask': 4294967295",
                  "Non-default option 'XDRBufInitialSize': 0", "Non-default option 'OutOfProcDumpGen': true",
                  "Non-default option 'WinFileWriteRetryCount': 2",
                  "Non-default option 'WinFileWriteRetryMaxTimeoutMsec': 3"));
}

TEST_F(CommonOptionsTest, ReportsValuesThatNothingUses) {
  Put(Key, "CustomTempDirPath", std::string("/tmp"));
  Put(Key, "CollectRestoreStat", 1U);
  ASSERT_EQ(registry.SetQword(Key, "TapeBlockSize", 5000000000U), 0U);
  Put(Key, "StgOversizeMbLimit", 1U);
  Put(Key, "StgOversizeGbLimit", 2U);
  Put(Key, "NoSuchOption", 1U);
  options.LoadOptions();
  EXPECT_THAT(
      log.Texts(),
      ElementsAre("Loading options.", "Non-default option 'CollectRestoreStat': 1",
                  "Non-default option 'TapeBlockSize': 5000000000", "Non-default option 'StgOversizeMbLimit': 1",
                  "Non-default option 'StgOversizeGbLimit': 2", "Non-default option 'CustomTempDirPath': /tmp"));
}

TEST_F(CommonOptionsTest, AValueOfAnotherTypeIsAbsent) {
  Put(Key, "XDRBufInitialSize", std::string("64"));
  Put(Key, "MiniDumpModeType", 1U);
  Put(Key, "OutOfProcDumpGen", std::string("true"));
  options.LoadOptions();
  EXPECT_EQ(options.xdrBufInitialSize, 128U);
  EXPECT_EQ(options.miniDumpModeType, "Normal");
  EXPECT_FALSE(options.outOfProcDumpGen);
  EXPECT_THAT(log.Texts(), ElementsAre("Loading options."));
}

TEST_F(CommonOptionsTest, AFailureIsReported) {
  Put(Key, "XDRBufInitialSize", 64U);
  registry.Fail("EnumerateValues", 1009);
  options.LoadOptions();
  EXPECT_EQ(options.xdrBufInitialSize, 128U);
  EXPECT_TRUE(log.Has("Failed to load registry options."));
}

TEST_F(CommonOptionsTest, TheProcessHasOneSet) {
  EXPECT_EQ(&CCommonOptions::Instance(), &CCommonOptions::Instance());
}

class NfsOptionsTest : public test::ConfigFixture {
 protected:
  static constexpr const char* Key = R"(SOFTWARE\Kelvo\Kelvo Vault)";
};

TEST_F(NfsOptionsTest, HasDefaultsAndMakesItsSubKey) {
  ASSERT_EQ(registry.CreateKey(Key), 0U);
  const SNfsOptions options = LoadNfsOptions();
  EXPECT_EQ(options.connectRetryCount, 10U);
  EXPECT_EQ(options.asyncPrereadBlockSizeMb, 2U);
  EXPECT_EQ(options.asyncPrereadQueueDepthChunks, 64U);
  EXPECT_EQ(options.recvTimeoutSec, 30U);
  EXPECT_EQ(options.tintryAsyncPrereadBlockSizeMb, 1U);
  EXPECT_EQ(options.tintryAsyncPrereadQueueDepthChunks, 4U);
  EXPECT_EQ(options.asyncRpcRecvThreadsNum, std::min<std::uint32_t>(platform::ProcessorCount(), 8));
  EXPECT_THAT(log.Texts(), ElementsAre("Loading NFS registry options"));
  EXPECT_TRUE(HasKey(std::string(Key) + "\\NFS"));
}

TEST_F(NfsOptionsTest, ReportsDescriptionOrKeyInTableOrder) {
  Put(Key, "NfsCommandRetryNumber", 6U);
  Put(Key, "NfsRecvTimeoutSec", 5U);
  Put(Key, "NfsMultipleWriteEnabled", 1U);
  Put(Key, "NfsAsyncWriteEnabled", 0U);
  Put(Key, "NfsReadCacheSizeMb2", 7U);
  Put(Key, "NfsAsyncRpcRecvThreadsNum", 3U);
  const SNfsOptions options = LoadNfsOptions();
  EXPECT_EQ(options.recvTimeoutSec, 5U);
  EXPECT_TRUE(options.multipleWriteEnabled);
  EXPECT_FALSE(options.asyncWriteEnabled);
  EXPECT_EQ(options.asyncRpcRecvThreadsNum, 3U);
  EXPECT_THAT(
      log.Texts(),
      ElementsAre("Loading NFS registry options", "Non-default option [NFS read cache size in MB] : [7]",
                  "Non-default option [NFS multiple write: Enabled] : [true]",
                  "Non-default option [NfsRecvTimeoutSec] : [5]", "Non-default option [NfsAsyncWriteEnabled] : [false]",
                  "Non-default option [NfsAsyncRpcRecvThreadsNum] : [3]",
                  "Non-default option [NFS command retry number] : [6]"));
}

TEST_F(NfsOptionsTest, TheLaterKeyOfAPairWins) {
  Put(Key, "NfsTintryAsyncPrereadBlockSizeMb", 9U);
  EXPECT_EQ(LoadNfsOptions().asyncPrereadBlockSizeMb, 9U);
  Put(Key, "NfsAsyncPrereadBlockSizeMb", 8U);
  Put(Key, "NfsAsyncPrereadQueueDepthChunks", 7U);
  Put(Key, "NfsTintryAsyncPrereadQueueDepthChunks", 6U);
  const SNfsOptions options = LoadNfsOptions();
  EXPECT_EQ(options.asyncPrereadBlockSizeMb, 9U);
  EXPECT_EQ(options.asyncPrereadQueueDepthChunks, 6U);
  EXPECT_EQ(options.tintryAsyncPrereadBlockSizeMb, 1U);
  EXPECT_EQ(options.tintryAsyncPrereadQueueDepthChunks, 4U);
}

TEST_F(NfsOptionsTest, AFailureIsReportedAndTheDefaultsStand) {
  EXPECT_EQ(LoadNfsOptions().recvTimeoutSec, 30U);
  EXPECT_TRUE(log.Has("Failed to load NFS registry options."));
  EXPECT_FALSE(HasKey(Key));
  log.Clear();
  Put(Key, "NfsRecvTimeoutSec", 5U);
  registry.Fail("CreateKey", 5);
  EXPECT_EQ(LoadNfsOptions().recvTimeoutSec, 5U);
  EXPECT_TRUE(log.Has("Failed to load NFS registry options."));
}

class RpcServerSettingsTest : public test::ConfigFixture {
 protected:
  static constexpr const char* Key = R"(SOFTWARE\Kelvo\Kelvo NFS)";

  std::uint32_t Read(std::vector<std::string> arguments) {
    settings.ReadPortSettings(Key, CCommandLine(std::move(arguments)), 6161);
    EXPECT_TRUE(settings.UseStaticPort());
    EXPECT_FALSE(settings.UseSecondPort());
    EXPECT_EQ(settings.SecondPort(), 4294967295U);
    return settings.Port();
  }

  CRpcServerSettings settings;
};

TEST_F(RpcServerSettingsTest, BeginsWithoutAStaticPort) {
  EXPECT_FALSE(settings.UseStaticPort());
  EXPECT_EQ(settings.Port(), 4343U);
  EXPECT_FALSE(settings.UseSecondPort());
  EXPECT_EQ(settings.SecondPort(), 4294967295U);
}

TEST_F(RpcServerSettingsTest, TheDefaultStandsWhenNothingIsGiven) {
  EXPECT_EQ(Read({"svc"}), 6161U);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_EQ(Read({"svc", "-port"}), 6161U);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RpcServerSettingsTest, TheRegistryOutranksTheCommandLine) {
  Put(Key, "Port", 7000U);
  EXPECT_EQ(Read({"svc", "-port", "8000"}), 7000U);
  EXPECT_THAT(log.Texts(), ElementsAre("Port settings were read from registry. Port: '7000'."));
}

TEST_F(RpcServerSettingsTest, TheCommandLineIsNext) {
  EXPECT_EQ(Read({"svc", "-PORT", "65535"}), 65535U);
  EXPECT_THAT(log.Texts(), ElementsAre("Port settings were obtained from command line. Port: '65535'."));
}

TEST_F(RpcServerSettingsTest, AnInvalidPortIsLoggedAndSkipped) {
  Put(Key, "Port", 70000U);
  EXPECT_EQ(Read({"svc", "-port", "8000"}), 8000U);
  EXPECT_THAT(log.Texts(), ElementsAre("Invalid port value was read from registry, setting '70000' is skipped.",
                                       "Port settings were obtained from command line. Port: '8000'."));
  log.Clear();
  EXPECT_EQ(Read({"svc", "-port", "65536"}), 6161U);
  EXPECT_EQ(Read({"svc", "-port", "abc"}), 6161U);
  EXPECT_EQ(Read({"svc", "-port", "99999999999999999999"}), 6161U);
  const auto texts = log.Texts();
  EXPECT_THAT(texts, Contains("Invalid port value was read from command line, setting '65536' is skipped."));
  EXPECT_THAT(texts, Contains("Invalid port value was read from command line, setting 'abc' is skipped."));
}

TEST_F(RpcServerSettingsTest, AValueOfAnotherTypeIsAbsent) {
  Put(Key, "Port", std::string("7000"));
  EXPECT_EQ(Read({"svc"}), 6161U);
}

TEST_F(RpcServerSettingsTest, SetPortChecksAStaticPortAlone) {
  EXPECT_THAT(test::ThrownTexts([&] { settings.SetPort(true, 65536); }), Contains("Invalid argument."));
  EXPECT_FALSE(settings.UseStaticPort());
  settings.SetPort(true, 65535);
  EXPECT_TRUE(settings.UseStaticPort());
  settings.SetPort(false, 4294967295U);
  EXPECT_FALSE(settings.UseStaticPort());
}

TEST_F(RpcServerSettingsTest, StoresAStaticPort) {
  settings.SetPort(true, 7000);
  settings.StorePortSettings(Key);
  EXPECT_EQ(Dword(Key, "Port"), 7000U);
  EXPECT_THAT(log.Texts(), ElementsAre("Storing RPC server settings. Static port: [true], Port: [7000]."));
}

TEST_F(RpcServerSettingsTest, WithoutAStaticPortTheStoredOneGoes) {
  Put(Key, "Port", 7000U);
  settings.SetPort(false, 0);
  settings.StorePortSettings(Key);
  EXPECT_EQ(Read({"svc"}), 6161U);
  settings.SetPort(false, 0);
  EXPECT_NO_THROW(settings.StorePortSettings(Key));
  EXPECT_NO_THROW(settings.StorePortSettings("SOFTWARE\\Nothing"));
  EXPECT_FALSE(HasKey("SOFTWARE\\Nothing"));
}

TEST_F(RpcServerSettingsTest, AFailureToStoreIsThrown) {
  constexpr const char* Failure = R"(Failed to store RPC server settings. Key name: [SOFTWARE\Kelvo\Kelvo NFS].)";
  registry.Fail("SetValues", 5);
  settings.SetPort(true, 1);
  EXPECT_EQ(test::ThrownTexts([&] { settings.StorePortSettings(Key); }).back(), Failure);
  registry.Fail("DeleteValue", 5);
  settings.SetPort(false, 0);
  EXPECT_EQ(test::ThrownTexts([&] { settings.StorePortSettings(Key); }).back(), Failure);
}

class NfsParamsTest : public test::ConfigFixture {
 protected:
  const CCommandLine commandLine{{"svc", "-port", "8000"}};
};

TEST_F(NfsParamsTest, HasDefaultsUntilLoaded) {
  CNfsParams params(false, commandLine);
  EXPECT_EQ(params.GetRpcPort(), CNfsParams::NoStaticPort);
  EXPECT_EQ(params.GetMountPort(), 1058);
  params.Load();
  EXPECT_EQ(params.GetRpcPort(), 8000U);
}

TEST_F(NfsParamsTest, WhatIsSavedIsLoaded) {
  CNfsParams params(false, commandLine);
  params.SetRootFolder("/srv/nfs");
  params.SetRpcPort(7000);
  params.SetMountPort(1);
  params.SetNfsPort(2);
  params.Save();
  EXPECT_EQ(Dword(Root, "Port"), 7000U);
  const CNfsParams loaded(true, commandLine);
  EXPECT_EQ(loaded.GetRpcPort(), 7000U);
  EXPECT_EQ(loaded.GetMountPort(), 1);
  EXPECT_EQ(loaded.GetNfsPort(), 2);
  EXPECT_EQ(loaded.GetRootFolder(), "/srv/nfs");
}

TEST_F(NfsParamsTest, AllBitsSetClearsTheStaticPort) {
  Put(Root, "Port", 7000U);
  CNfsParams params(true, commandLine);
  params.SetRpcPort(4294967295U);
  EXPECT_EQ(params.GetRpcPort(), CNfsParams::NoStaticPort);
  params.Save();
  std::uint32_t number = 0;
  EXPECT_EQ(registry.GetDword(Root, "Port", number), 2U);
}

TEST_F(NfsParamsTest, RefusesWhatIsNoPort) {
  CNfsParams params(false, commandLine);
  EXPECT_THROW(params.SetRpcPort(65536), exc::runtime_exc_t);
  EXPECT_THROW(params.SetMountPort(65536), exc::runtime_exc_t);
  EXPECT_THROW(params.SetNfsPort(65536), exc::runtime_exc_t);
}

TEST_F(NfsParamsTest, SavesInOrderAndStopsAtTheFirstFailure) {
  CNfsParams params(false, commandLine);
  params.SetRpcPort(7000);
  params.SetRootFolder("/srv/nfs");
  registry.FailAfter("SetValues", 1, 112);
  EXPECT_EQ(test::ThrownTexts([&] { params.Save(); }).back(), "Failed to save registry options.");
  registry.fault = {};
  EXPECT_EQ(Dword(Root, "Port"), 7000U);
  std::string text;
  EXPECT_EQ(registry.GetText(Root, "RootFolder", text), 2U);
}

}  // namespace
