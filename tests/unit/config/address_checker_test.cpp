#include "config/address_checker.h"

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstring>
#include <thread>

#include "config/address_checker_factory.h"
#include "config/address_checker_registry_synced.h"
#include "config/address_family_checker.h"
#include "unit/config/config_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

sockaddr_in Ipv4(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(1023);
  EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1) << text;
  return address;
}

const sockaddr* Generic(const void* address) {
  return static_cast<const sockaddr*>(address);
}

bool Allows(IAddressChecker& checker, const char* text) {
  const sockaddr_in address = Ipv4(text);
  return checker.IsAllowed(Generic(&address), sizeof(address));
}

using AddressCheckerTest = test::ConfigFixture;

TEST_F(AddressCheckerTest, AllowsHostsAndNetworks) {
  CAddressChecker checker;
  checker.AddAddresses("10.0.0.5");
  checker.AddAddresses("10.1.0.0/16;192.168.2.7");
  EXPECT_TRUE(Allows(checker, "10.0.0.5"));
  EXPECT_FALSE(Allows(checker, "10.0.0.6"));
  EXPECT_TRUE(Allows(checker, "10.1.255.255"));
  EXPECT_FALSE(Allows(checker, "10.2.0.0"));
  EXPECT_TRUE(Allows(checker, "192.168.2.7"));
  EXPECT_EQ(checker.ToString(), "10.0.0.5;10.1.0.0/16;192.168.2.7");
  EXPECT_FALSE(checker.IsEmpty());
}

TEST_F(AddressCheckerTest, TellsEachAddressAtEachChange) {
  CAddressChecker checker("10.0.0.2;10.0.0.1");
  EXPECT_THAT(log.Texts(), ElementsAre(R"(Allow connections from "10.0.0.1")", R"(Allow connections from "10.0.0.2")"));
  log.Clear();
  checker.AddAddresses("10.0.0.3/24");
  EXPECT_THAT(log.Texts(), ElementsAre(R"(Allow connections from "10.0.0.1")", R"(Allow connections from "10.0.0.2")",
                                       R"(Allow connections from "10.0.0.3/24")"));
}

TEST_F(AddressCheckerTest, PiecesOfOneCharacterAreSkipped) {
  CAddressChecker checker("1;2.2.2.2");
  EXPECT_EQ(checker.ToString(), "2.2.2.2");
  CAddressChecker more(";;3.3.3.3;;4;5.5.5.5;");
  EXPECT_EQ(more.ToString(), "3.3.3.3;5.5.5.5");
  CAddressChecker none("1;;2");
  EXPECT_TRUE(none.IsEmpty());
  EXPECT_EQ(none.ToString(), "");
}

TEST_F(AddressCheckerTest, DuplicatesMergeByteForByte) {
  CAddressChecker checker("2.2.2.2;2.2.2.2;2.2.2.2/32; 2.2.2.2");
  EXPECT_EQ(checker.ToString(), " 2.2.2.2;2.2.2.2;2.2.2.2/32");
}

TEST_F(AddressCheckerTest, AnInvalidPrefixIsDroppedWithoutALine) {
  CAddressChecker checker("10.0.0.1/x;10.0.0.2/;10.0.0.3/-1;10.0.0.4/8x;10.0.0.5/99999999999");
  EXPECT_THAT(log.Lines(), IsEmpty());
  for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5"})
    EXPECT_FALSE(Allows(checker, address)) << address;
  EXPECT_EQ(checker.ToString(), "10.0.0.1/x;10.0.0.2/;10.0.0.3/-1;10.0.0.4/8x;10.0.0.5/99999999999");
}

TEST_F(AddressCheckerTest, APrefixOfZeroIsTheHostAlone) {
  CAddressChecker checker("10.0.0.1/0");
  EXPECT_TRUE(Allows(checker, "10.0.0.1"));
  EXPECT_FALSE(Allows(checker, "10.0.0.2"));
}

TEST_F(AddressCheckerTest, APrefixAboveThirtyTwoIsTakenModuloThirtyTwo) {
  CAddressChecker checker("10.1.2.3/40;192.0.2.1/64");
  EXPECT_TRUE(Allows(checker, "10.200.0.0"));
  EXPECT_FALSE(Allows(checker, "11.0.0.0"));
  EXPECT_TRUE(Allows(checker, "192.0.2.1"));
  EXPECT_FALSE(Allows(checker, "192.0.2.2"));
}

TEST_F(AddressCheckerTest, HostBitsOfANetworkAreIgnored) {
  CAddressChecker checker("10.1.2.3/31;172.16.5.5/1");
  EXPECT_TRUE(Allows(checker, "10.1.2.2"));
  EXPECT_FALSE(Allows(checker, "10.1.2.4"));
  EXPECT_TRUE(Allows(checker, "255.0.0.1"));
}

TEST_F(AddressCheckerTest, AHostNameIsLoggedAndAllowsNobody) {
  CAddressChecker checker("localhost;10.0.0.256");
  const auto warnings = log.Texts("Warning");
  EXPECT_THAT(warnings, Contains(StartsWith(R"(Error while parsing address "localhost": )")));
  EXPECT_THAT(warnings, Not(Contains(R"(Error while parsing address "localhost": )")));
  EXPECT_THAT(warnings, Contains(StartsWith(R"(Error while parsing address "10.0.0.256": )")));
  EXPECT_FALSE(Allows(checker, "127.0.0.1"));
  EXPECT_EQ(checker.ToString(), "10.0.0.256;localhost");
}

TEST_F(AddressCheckerTest, AZeroByteHidesNothing) {
  CAddressChecker checker(std::string("10.0.0.1\0.example", 17));
  EXPECT_FALSE(Allows(checker, "10.0.0.1"));
  EXPECT_EQ(log.Texts("Warning").size(), 1U);
}

TEST_F(AddressCheckerTest, ABadEntryIsParsedAgainAtEachRebuild) {
  CAddressChecker checker("localhost");
  checker.AddAddresses("10.0.0.1");
  EXPECT_EQ(log.Texts("Warning").size(), 2U);
}

TEST_F(AddressCheckerTest, IPv6IsNotServed) {
  CAddressChecker checker("fe80::1;10.0.0.1");
  EXPECT_THAT(log.Texts("Warning"),
              ElementsAre("Unsupported address family " + std::to_string(AF_INET6) + R"( for address "fe80::1")"));
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  EXPECT_FALSE(checker.IsAllowed(Generic(&address), sizeof(address)));
  EXPECT_EQ(checker.ToString(), "10.0.0.1;fe80::1");
}

TEST_F(AddressCheckerTest, AShortAddressIsRefused) {
  CAddressChecker checker("10.0.0.1");
  const sockaddr_in address = Ipv4("10.0.0.1");
  for (socklen_t length = 0; length < sizeof(address); ++length)
    EXPECT_FALSE(checker.IsAllowed(Generic(&address), length)) << length;
  EXPECT_TRUE(checker.IsAllowed(Generic(&address), sizeof(address)));
}

TEST_F(AddressCheckerTest, AnAddressMayLieAnywhere) {
  CAddressChecker checker("10.0.0.1");
  const sockaddr_in address = Ipv4("10.0.0.1");
  std::array<char, sizeof(address) + 1> bytes{};
  std::memcpy(bytes.data() + 1, &address, sizeof(address));
  EXPECT_TRUE(checker.IsAllowed(Generic(bytes.data() + 1), sizeof(address)));
}

TEST_F(AddressCheckerTest, AnEmptyListRefusesEveryAddress) {
  CAddressChecker checker;
  EXPECT_FALSE(Allows(checker, "127.0.0.1"));
  EXPECT_TRUE(checker.IsEmpty());
}

TEST_F(AddressCheckerTest, ARemovedAddressStaysAllowed) {
  CAddressChecker checker("10.0.0.1;10.0.0.2");
  checker.RemoveAddresses("10.0.0.1;10.0.0.9");
  EXPECT_EQ(checker.ToString(), "10.0.0.2");
  EXPECT_TRUE(Allows(checker, "10.0.0.1"));
  checker.RemoveAddresses("10.0.0.2");
  EXPECT_TRUE(checker.IsEmpty());
  EXPECT_TRUE(Allows(checker, "10.0.0.2"));
}

TEST_F(AddressCheckerTest, AWiderNetworkAddsToANarrowerOne) {
  CAddressChecker checker("10.0.0.0/24;10.0.0.0/8");
  EXPECT_TRUE(Allows(checker, "10.0.0.1"));
  EXPECT_TRUE(Allows(checker, "10.9.9.9"));
  checker.AddAddresses("10.9.9.9");
  EXPECT_TRUE(Allows(checker, "10.9.9.9"));
  EXPECT_FALSE(Allows(checker, "11.0.0.1"));
}

TEST_F(AddressCheckerTest, ALongListIsSearchedWhole) {
  std::string list;
  for (int host = 1; host < 255; ++host)
    list += "10.0." + std::to_string(host) + ".7;172.16." + std::to_string(host) + ".0/24;";
  CAddressChecker checker(list);
  for (int host = 1; host < 255; ++host) {
    const std::string number = std::to_string(host);
    EXPECT_TRUE(Allows(checker, ("10.0." + number + ".7").c_str()));
    EXPECT_FALSE(Allows(checker, ("10.0." + number + ".8").c_str()));
    EXPECT_TRUE(Allows(checker, ("172.16." + number + ".200").c_str()));
  }
  EXPECT_FALSE(Allows(checker, "172.17.1.1"));
}

TEST_F(AddressCheckerTest, ChecksWhileTheListChanges) {
  CAddressChecker checker("10.0.0.1");
  std::atomic<bool> stop{false};
  std::atomic<int> refusals{0};
  std::thread reader([&] {
    while (!stop) {
      if (!Allows(checker, "10.0.0.1"))
        ++refusals;
      checker.ToString();
    }
  });
  for (int round = 0; round < 200; ++round) {
    checker.AddAddresses("10.0.1.1");
    checker.RemoveAddresses("10.0.1.1");
  }
  stop = true;
  reader.join();
  EXPECT_EQ(refusals, 0);
}

TEST_F(AddressCheckerTest, TheStubLetsEveryoneIn) {
  CAddressCheckerStub stub;
  stub.AddAddresses("10.0.0.1");
  EXPECT_TRUE(Allows(stub, "192.0.2.1"));
  EXPECT_TRUE(stub.IsAllowed(nullptr, 0));
  EXPECT_TRUE(stub.IsEmpty());
  EXPECT_EQ(stub.ToString(), "");
  stub.RemoveAddresses("10.0.0.1");
}

class RegistrySyncedTest : public test::ConfigFixture {};

TEST_F(RegistrySyncedTest, ReadsTheListOnceAndWritesNothingBack) {
  Put(Root, "AllowedAddresses", std::string("10.0.0.2;10.0.0.1;1"));
  registry.Fail("SetValues", 5);
  CAddressCheckerRegistrySynced checker;
  registry.fault = {};
  EXPECT_EQ(Text(Root, "AllowedAddresses"), "10.0.0.2;10.0.0.1;1");
  EXPECT_TRUE(Allows(checker, "10.0.0.1"));
  Put(Root, "AllowedAddresses", std::string("10.0.0.3"));
  EXPECT_FALSE(Allows(checker, "10.0.0.3"));
  EXPECT_EQ(checker.ToString(), "10.0.0.1;10.0.0.2");
}

TEST_F(RegistrySyncedTest, EachChangeIsStoredAndTold) {
  CAddressCheckerRegistrySynced checker;
  EXPECT_TRUE(checker.IsEmpty());
  checker.AddAddresses("10.0.0.1;bad");
  EXPECT_EQ(Text(Root, "AllowedAddresses"), "10.0.0.1;bad");
  EXPECT_TRUE(log.Has(R"(Allowed connections list changed to "10.0.0.1;bad")"));
  checker.RemoveAddresses("10.0.0.1");
  EXPECT_EQ(Text(Root, "AllowedAddresses"), "bad");
  EXPECT_TRUE(log.Has(R"(Allowed connections list changed to "bad")"));
  EXPECT_TRUE(Allows(checker, "10.0.0.1"));
  CAddressCheckerRegistrySynced restarted;
  EXPECT_FALSE(Allows(restarted, "10.0.0.1"));
}

TEST_F(RegistrySyncedTest, WhatCannotBeStoredHoldsForTheProcessAndIsTold) {
  CAddressCheckerRegistrySynced checker;
  registry.Fail("SetValues", 112);
  EXPECT_THAT(test::ThrownTexts([&] { checker.AddAddresses("10.0.0.1"); }),
              Contains("Failed to serialize ip address list. Reg key name: [AllowedAddresses]. Addr: [10.0.0.1]."));
  EXPECT_TRUE(Allows(checker, "10.0.0.1"));
  EXPECT_FALSE(log.Has(R"(Allowed connections list changed to "10.0.0.1")"));
}

class AddressCheckerFactoryTest : public test::ConfigFixture {
 protected:
  ~AddressCheckerFactoryTest() override { CAddressCheckerFactory::Install({}); }
};

TEST_F(AddressCheckerFactoryTest, IsNotThereUntilInstalled) {
  EXPECT_THAT(test::ThrownTexts([] { CAddressCheckerFactory::Get(); }),
              ElementsAre("Address checker factory is not initialized."));
  const boost::shared_ptr<CAddressCheckerFactory> factory(new CAddressCheckerFactory(true));
  const boost::shared_ptr<CAddressCheckerFactory> other(new CAddressCheckerFactory(true));
  CAddressCheckerFactory::Install(factory);
  EXPECT_EQ(CAddressCheckerFactory::Get(), factory);
  CAddressCheckerFactory::Withdraw(other);
  EXPECT_EQ(CAddressCheckerFactory::Get(), factory);
  CAddressCheckerFactory::Withdraw(factory);
  EXPECT_THROW(CAddressCheckerFactory::Get(), exc::runtime_exc_t);
}

TEST_F(AddressCheckerFactoryTest, ChecksAddresses) {
  Put(Root, "AllowedAddresses", std::string("10.0.0.1"));
  const CAddressCheckerFactory factory(true);
  EXPECT_EQ(factory.CreateGlobalChecker()->ToString(), "10.0.0.1");
  EXPECT_FALSE(factory.CreateItemChecker(""));
  const auto checker = factory.CreateItemChecker("10.0.0.2");
  EXPECT_TRUE(Allows(*checker, "10.0.0.2"));
  EXPECT_FALSE(Allows(*checker, "10.0.0.1"));
  EXPECT_EQ(Text(Root, "AllowedAddresses"), "10.0.0.1");
}

TEST_F(AddressCheckerFactoryTest, LetsEveryoneInWhenChecksAreOff) {
  const CAddressCheckerFactory factory(false);
  EXPECT_TRUE(Allows(*factory.CreateGlobalChecker(), "192.0.2.1"));
  EXPECT_TRUE(Allows(*factory.CreateItemChecker("10.0.0.2"), "192.0.2.1"));
  const auto unlisted = factory.CreateItemChecker("");
  ASSERT_TRUE(unlisted);
  EXPECT_TRUE(Allows(*unlisted, "192.0.2.1"));
}

TEST_F(AddressCheckerFactoryTest, ItemsOfOneListShareTheirChecker) {
  const CAddressCheckerFactory factory(true);
  const auto first = factory.CreateItemChecker("10.0.0.2");
  EXPECT_EQ(factory.CreateItemChecker("10.0.0.2"), first);
  EXPECT_NE(factory.CreateItemChecker("10.0.0.3"), first);
  for (int number = 0; number < 1000; ++number)
    factory.CreateItemChecker("10.1." + std::to_string(number / 250) + "." + std::to_string(number % 250));
  EXPECT_EQ(factory.CreateItemChecker("10.0.0.2"), first);
  EXPECT_EQ(log.Count(R"(Allow connections from "10.0.0.2")"), 1U);
}

TEST(IPv4AddressFamilyCheckerTest, IgnoresAShortAddress) {
  CIPv4AddressFamilyChecker checker;
  const sockaddr_in address = Ipv4("10.0.0.1");
  checker.AddAddress(Generic(&address), sizeof(address) - 1, 0);
  EXPECT_FALSE(checker.IsAllowed(Generic(&address), sizeof(address)));
  checker.AddAddress(Generic(&address), sizeof(address), 32);
  EXPECT_TRUE(checker.IsAllowed(Generic(&address), sizeof(address)));
  EXPECT_FALSE(checker.IsAllowed(Generic(&address), sizeof(address) - 1));
}

}  // namespace
