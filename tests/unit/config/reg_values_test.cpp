// The small companions of the configuration: ports, root folder, address list.
#include "config/reg_config_address_list.h"
#include "config/reg_config_ports.h"
#include "config/reg_config_root_folder.h"
#include "config/reg_options_cache.h"
#include "platform/clock.h"
#include "unit/config/config_fixture.h"

namespace {

using testing::Contains;
using testing::IsEmpty;

using RegConfigPortsTest = test::ConfigFixture;

TEST_F(RegConfigPortsTest, HasDefaults) {
  const CRegConfigPorts ports(true);
  EXPECT_EQ(ports.GetMountPort(), 1058);
  EXPECT_EQ(ports.GetNfsPort(), 2049);
  EXPECT_TRUE(HasKey(Root));
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(RegConfigPortsTest, ReadsWhatIsStoredWhenAsked) {
  Put(Root, "MountPort", 20048U);
  Put(Root, "NfsPort", 65535U);
  const CRegConfigPorts loaded(true);
  EXPECT_EQ(loaded.GetMountPort(), 20048);
  EXPECT_EQ(loaded.GetNfsPort(), 65535);
  EXPECT_EQ(CRegConfigPorts(false).GetMountPort(), 1058);
}

TEST_F(RegConfigPortsTest, AStoredPortThatIsNoneIsIgnored) {
  Put(Root, "MountPort", 65536U);
  Put(Root, "NfsPort", std::string("2050"));
  const CRegConfigPorts ports(true);
  EXPECT_EQ(ports.GetMountPort(), 1058);
  EXPECT_EQ(ports.GetNfsPort(), 2049);
}

TEST_F(RegConfigPortsTest, OnePortIsReadWithoutTheOther) {
  Put(Root, "MountPort", 4294967295U);
  Put(Root, "NfsPort", 2050U);
  const CRegConfigPorts ports(true);
  EXPECT_EQ(ports.GetMountPort(), 1058);
  EXPECT_EQ(ports.GetNfsPort(), 2050);
}

TEST_F(RegConfigPortsTest, SavesBoth) {
  CRegConfigPorts ports(false);
  ports.SetMountPort(0);
  ports.SetNfsPort(65535);
  ports.Save();
  EXPECT_EQ(Dword(Root, "MountPort"), 0U);
  EXPECT_EQ(Dword(Root, "NfsPort"), 65535U);
}

TEST_F(RegConfigPortsTest, RefusesWhatIsNoPort) {
  CRegConfigPorts ports(false);
  EXPECT_THAT(test::ThrownTexts([&] { ports.SetMountPort(65536); }), Contains("Invalid argument."));
  EXPECT_THAT(test::ThrownTexts([&] { ports.SetNfsPort(4294967295U); }), Contains("Invalid argument."));
  EXPECT_EQ(ports.GetMountPort(), 1058);
  EXPECT_EQ(ports.GetNfsPort(), 2049);
}

TEST_F(RegConfigPortsTest, AFailureToLoadIsLogged) {
  registry.Fail("CreateKey", 5);
  const CRegConfigPorts ports(true);
  EXPECT_EQ(ports.GetNfsPort(), 2049);
  EXPECT_TRUE(log.Has("Failed to load registry options."));
}

TEST_F(RegConfigPortsTest, AFailureToSaveIsThrown) {
  registry.Fail("SetValues", 5);
  const CRegConfigPorts ports(false);
  EXPECT_EQ(test::ThrownTexts([&] { ports.Save(); }).back(), "Failed to save registry options.");
}

class RegConfigRootFolderTest : public test::ConfigFixture {
 protected:
  std::string Default() const { return folder.Path().string() + "/Kelvo/Backup/NfsDatastore"; }
  std::string Loaded(const std::string& text) {
    Put(Root, "RootFolder", text);
    return CRegConfigRootFolder(true).Get();
  }
};

TEST_F(RegConfigRootFolderTest, DefaultsBelowTheCommonFolder) {
  CRegConfigRootFolder root(false);
  EXPECT_EQ(root.Get(), Default());
  EXPECT_FALSE(root.Load());
  EXPECT_EQ(root.Get(), Default());
}

TEST_F(RegConfigRootFolderTest, OnlyBlanksGiveTheDefault) {
  EXPECT_EQ(Loaded(" \t\r\n "), Default());
  EXPECT_EQ(Loaded(""), Default());
  Put(Root, "RootFolder", 5U);
  EXPECT_EQ(CRegConfigRootFolder(true).Get(), Default());
}

TEST_F(RegConfigRootFolderTest, ADriveKeepsItsSeparatorAndAFolderLosesIt) {
  EXPECT_EQ(TrimRootFolder(R"(D:\)"), R"(D:\)");
  EXPECT_EQ(TrimRootFolder(R"(D:\data\)"), R"(D:\data)");
  EXPECT_EQ(TrimRootFolder("\t D:\\data\\ \r\n"), R"(D:\data)");
  EXPECT_EQ(TrimRootFolder(R"(ab\)"), "ab");
  EXPECT_EQ(TrimRootFolder("/srv/nfs/"), "/srv/nfs");
  EXPECT_EQ(TrimRootFolder("/srv/nfs//"), "/srv/nfs/");
  EXPECT_EQ(TrimRootFolder("/"), "/");
  EXPECT_EQ(TrimRootFolder(""), "");
}

TEST_F(RegConfigRootFolderTest, GivesForwardSeparatorsAndExpands) {
  EXPECT_EQ(Loaded(R"(\srv\nfs\)"), "/srv/nfs");
  EXPECT_EQ(Loaded(" /srv/nfs/ "), "/srv/nfs");
  EXPECT_EQ(Loaded(R"(%ALLUSERSPROFILE%\data)"), folder.Path().string() + "/data");
  EXPECT_EQ(Loaded("/"), "/");
}

TEST_F(RegConfigRootFolderTest, LoadTellsWhetherAFolderIsStored) {
  CRegConfigRootFolder root(false);
  Put(Root, "RootFolder", std::string("/srv"));
  EXPECT_TRUE(root.Load());
  EXPECT_EQ(root.Get(), "/srv");
  ASSERT_EQ(registry.DeleteValue(Root, "RootFolder"), 0U);
  EXPECT_FALSE(root.Load());
  EXPECT_EQ(root.Get(), Default());
}

TEST_F(RegConfigRootFolderTest, SavesTheTextUnexpanded) {
  CRegConfigRootFolder root(false);
  root.Save();
  EXPECT_EQ(Text(Root, "RootFolder"), R"(%ALLUSERSPROFILE%\Kelvo\Backup\NfsDatastore)");
  root.Set(R"(%ALLUSERSPROFILE%\other)");
  root.Save();
  EXPECT_EQ(Text(Root, "RootFolder"), R"(%ALLUSERSPROFILE%\other)");
}

TEST_F(RegConfigRootFolderTest, AFailureIsThrown) {
  registry.Fail("GetValue", 1009);
  EXPECT_EQ(test::ThrownTexts([&] { CRegConfigRootFolder root(true); }).back(), "Failed to load registry options.");
  registry.Fail("SetValues", 5);
  EXPECT_EQ(test::ThrownTexts([&] { CRegConfigRootFolder(false).Save(); }).back(), "Failed to save registry options.");
}

/// Stands still until the test moves it.
class StillClock : public platform::clock_source_t {
 public:
  std::int64_t WallNanoseconds() const override { return 0; }
  std::uint64_t MonotonicMilliseconds() const override { return now; }
  std::tm LocalTime(std::int64_t) const override { return {}; }
  void Sleep(std::uint32_t milliseconds) override { now += milliseconds; }

  std::uint64_t now = 0;
};

class RegOptionsCacheTest : public test::ConfigFixture {
 protected:
  RegOptionsCacheTest() : replacedClock_(platform::SetClock(&clock)) { Put(Root, "RootFolder", std::string("/one")); }
  ~RegOptionsCacheTest() override { platform::SetClock(replacedClock_); }

  StillClock clock;
  CRegOptionsCache cache;

 private:
  platform::clock_source_t* const replacedClock_;
};

TEST_F(RegOptionsCacheTest, ReadsAtFirstUseEvenWhenTheClockBegins) {
  EXPECT_EQ(cache.Get(), "/one");
}

TEST_F(RegOptionsCacheTest, AChangeArrivesAfterThirtySeconds) {
  EXPECT_EQ(cache.Get(), "/one");
  Put(Root, "RootFolder", std::string("/two"));
  clock.now += 29999;
  EXPECT_EQ(cache.Get(), "/one");
  clock.now += 1;
  EXPECT_EQ(cache.Get(), "/two");
  Put(Root, "RootFolder", std::string("/three"));
  clock.now += 29999;
  EXPECT_EQ(cache.Get(), "/two");
}

TEST_F(RegOptionsCacheTest, ARegistryThatFailsLaterLeavesWhatIsKnown) {
  EXPECT_EQ(cache.Get(), "/one");
  registry.Fail("GetValue", 33);
  clock.now += 30000;
  EXPECT_EQ(cache.Get(), "/one");
  EXPECT_TRUE(log.Has("The root folder is not read again."));
  registry.fault = {};
  Put(Root, "RootFolder", std::string("/two"));
  clock.now += 30000;
  EXPECT_EQ(cache.Get(), "/two");
}

TEST_F(RegOptionsCacheTest, ARegistryThatFailsAtFirstIsToldAndTriedAgain) {
  registry.Fail("GetValue", 1009);
  EXPECT_THAT(test::ThrownTexts([&] { cache.Get(); }), Contains("Failed to load registry options."));
  registry.fault = {};
  EXPECT_EQ(cache.Get(), "/one");
}

class RegConfigAddressListTest : public test::ConfigFixture {
 protected:
  const CRegConfigAddressList list{"AllowedAddresses"};
};

TEST_F(RegConfigAddressListTest, IsEmptyWhenNothingIsStored) {
  EXPECT_EQ(list.Load(), "");
  Put(Root, "AllowedAddresses", 5U);
  EXPECT_EQ(list.Load(), "");
}

TEST_F(RegConfigAddressListTest, ComesBack) {
  list.Save("10.0.0.1;10.0.0.2");
  EXPECT_EQ(Text(Root, "AllowedAddresses"), "10.0.0.1;10.0.0.2");
  EXPECT_EQ(list.Load(), "10.0.0.1;10.0.0.2");
  list.Save("");
  EXPECT_EQ(list.Load(), "");
}

TEST_F(RegConfigAddressListTest, AnyFailureToLoadGivesAnEmptyList) {
  list.Save("10.0.0.1");
  registry.Fail("GetValue", 1009);
  EXPECT_EQ(list.Load(), "");
  registry.Fail("CreateKey", 5);
  EXPECT_EQ(list.Load(), "");
}

TEST_F(RegConfigAddressListTest, AFailureToStoreIsThrownAndOneToOpenIsNot) {
  registry.Fail("SetValues", 112);
  EXPECT_THAT(test::ThrownTexts([&] { list.Save("10.0.0.1"); }),
              Contains("Failed to serialize ip address list. Reg key name: [AllowedAddresses]. Addr: [10.0.0.1]."));
  registry.Fail("CreateKey", 5);
  EXPECT_NO_THROW(list.Save("10.0.0.1"));
}

}  // namespace
