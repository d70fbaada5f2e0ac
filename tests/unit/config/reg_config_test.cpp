#include "config/reg_config.h"

#include "unit/config/reg_config_fixture.h"

namespace {

using test::Mount1;
using test::NoFid;
using test::RegConfigTest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const GUID Mount2 = *platform::GuidFromText("{aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}");
constexpr const char* Mount1Text = "{11111111-2222-3333-4444-555555555555}";
constexpr const char* NilText = "{00000000-0000-0000-0000-000000000000}";

TEST_F(RegConfigTest, CreatesTheThreeKeysInOrder) {
  std::vector<std::string> created;
  registry.fault = [&](std::string_view operation, std::string_view key) {
    if (operation == "CreateKey")
      created.emplace_back(key);
    return platform::error_t{0};
  };
  config.CreateKeys();
  EXPECT_THAT(created,
              ElementsAre(R"(SOFTWARE\KelvO\Kelvo NFS\Shared Folders)", R"(SOFTWARE\KelvO\Kelvo NFS\Dynamic mounts)",
                          R"(SOFTWARE\KelvO\Kelvo NFS\ItemsCache)"));
  for (const std::string& key : created)
    EXPECT_TRUE(HasKey(key));
  EXPECT_NO_THROW(config.CreateKeys());
}

TEST_F(RegConfigTest, TellsWhichKeyCannotBeCreated) {
  registry.FailAfter("CreateKey", 1, 5);
  const auto texts = test::ThrownTexts([&] { config.CreateKeys(); });
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.back(), "Failed to create registry keys for the NFS configuration.");
  EXPECT_THAT(texts, Contains(R"(Failed to create registry key [SOFTWARE\KelvO\Kelvo NFS\Dynamic mounts].)"));
}

TEST_F(RegConfigTest, LoadsNothingFromAnEmptyConfiguration) {
  config.CreateKeys();
  const SRegConfigData data = Load();
  EXPECT_TRUE(data.shares.empty());
  EXPECT_TRUE(data.mounts.empty());
  EXPECT_TRUE(data.items.empty());
  EXPECT_THAT(log.Texts(), ElementsAre("Enumerating NFS items mounted early.", "Items were enumerated."));
}

TEST_F(RegConfigTest, SaysWhenThereIsNoCatalogueAtAll) {
  EXPECT_TRUE(Load().items.empty());
  EXPECT_THAT(log.Texts(), ElementsAre("Enumerating NFS items mounted early.", "There is no NFS items to restore."));
  EXPECT_FALSE(HasKey(std::string(Root) + "\\ItemsCache"));
}

TEST_F(RegConfigTest, LoadDropsWhatTheRecordHeld) {
  SRegConfigData data;
  data.shares[Mount1];
  data.mounts[Mount1];
  data.items[7];
  config.Load(data);
  EXPECT_TRUE(data.shares.empty() && data.mounts.empty() && data.items.empty());
}

TEST_F(RegConfigTest, BringsAShareBackWithTheRootFolderForItsPath) {
  Put(Root, "RootFolder", std::string("/srv/nfs/"));
  config.SaveShare(Mount1, {"/elsewhere", "alias/1"});
  EXPECT_EQ(Text(Share(Mount1Text), "nfsFolderName"), "alias/1");

  const SRegConfigData data = Load();
  ASSERT_EQ(data.shares.size(), 1U);
  EXPECT_EQ(*data.shares.at(Mount1), (CNfsShareCfg{"/srv/nfs", "alias/1"}));
  const auto lines = log.Texts();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[0], "Registered shared folders:");
  EXPECT_EQ(lines[1],
            std::string("   NFS share [") + Mount1Text + "]. NFS mount path: [alias/1]. Local path: [/srv/nfs].");
}

TEST_F(RegConfigTest, OneDamagedShareCostsItselfAlone) {
  config.SaveShare(Mount1, {"", "good"});
  ASSERT_EQ(registry.CreateKey(Share("no guid")), 0U);
  ASSERT_EQ(registry.CreateKey(Share(NilText)), 0U);
  Put(Share("{aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}"), "nfsFolderName", 7U);
  const SRegConfigData data = Load();
  ASSERT_EQ(data.shares.size(), 1U);
  EXPECT_EQ(data.shares.at(Mount1)->nfsFolderName, "good");
  const auto warnings = log.Texts("Warning");
  EXPECT_THAT(warnings, Contains("Failed to load folder configuration (registry key: [no guid])"));
  EXPECT_THAT(warnings, Contains("Failed to convert string to GUID (no guid)"));
  EXPECT_THAT(warnings, Contains(std::string("Failed to load folder configuration (registry key: [") + NilText + "])"));
  EXPECT_THAT(warnings, Contains("Failed to load folder configuration (registry key: "
                                 "[{aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}])"));
}

TEST_F(RegConfigTest, AShareIsRemovedOnceAndForAll) {
  config.SaveShare(Mount1, {"", "alias"});
  config.RemoveShare(Mount1);
  EXPECT_FALSE(HasKey(Share(Mount1Text)));
  EXPECT_NO_THROW(config.RemoveShare(Mount1));
  EXPECT_EQ(log.Count("Clearing registry configuration."), 2U);
}

TEST_F(RegConfigTest, TellsWhyAShareCannotBeStoredOrRemoved) {
  registry.Fail("SetValues", 112);
  EXPECT_EQ(test::ThrownTexts([&] {
              config.SaveShare(Mount1, {"", "alias"});
            }).back(),
            std::string("Failed to register shared folder [") + Mount1Text + "].");
  registry.Fail("DeleteKey", 5);
  const auto texts = test::ThrownTexts([&] { config.RemoveShare(Mount1); });
  EXPECT_EQ(texts.back(), std::string("Failed to remove settings of the NFS folder from the configuration. "
                                      "Folder UID: [") +
                              Mount1Text + "].");
  EXPECT_THAT(texts, Contains("Failed to delete registry key [" + Share(Mount1Text) + "]."));
}

TEST_F(RegConfigTest, BringsAMountBack) {
  const CBackupMountCfg cfg{Mount2, "vm/disks", "vm 1", "a comment", "pipe1", "10.0.0.1"};
  config.SaveMount(Mount1, cfg);
  EXPECT_EQ(Text(Mount(Mount1Text), "nfsFolderID"), "{aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}");
  EXPECT_EQ(Text(Mount(Mount1Text), "description"), "a comment");

  const SRegConfigData data = Load();
  ASSERT_EQ(data.mounts.size(), 1U);
  EXPECT_EQ(*data.mounts.at(Mount1), cfg);
  const auto lines = log.Texts();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_EQ(lines[0], "Registered backup mount points:");
  EXPECT_EQ(lines[1], std::string("   Backup mount point [") + Mount1Text + "]. VM name: [vm 1]. Comment: [vm 1].");
  EXPECT_EQ(lines[2],
            "        NFS share: [{aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee}]. Mount point: [vm/disks]. "
            "Pipe: [pipe1].");
  EXPECT_EQ(lines[3], "        Allowed ESX host address: [10.0.0.1].");
}

TEST_F(RegConfigTest, EveryValueOfAMountIsRequired) {
  for (const char* name : {"nfsFolderID", "mountPoint", "vmName", "description", "pipe", "allowedHostAddr"}) {
    config.SaveMount(Mount1, {Mount2, "", "", "", "", ""});
    EXPECT_EQ(Load().mounts.size(), 1U);
    ASSERT_EQ(registry.DeleteValue(Mount(Mount1Text), name), 0U);
    log.Clear();
    EXPECT_TRUE(Load().mounts.empty()) << name;
    EXPECT_TRUE(log.Has(std::string("Failed to load specification of the backup mount point (registry key: [") +
                        Mount1Text + "])"))
        << name;
  }
}

TEST_F(RegConfigTest, AMountIsRemovedOnceAndForAll) {
  config.SaveMount(Mount1, {});
  config.RemoveMount(Mount1);
  EXPECT_FALSE(HasKey(Mount(Mount1Text)));
  EXPECT_NO_THROW(config.RemoveMount(Mount1));
  registry.Fail("DeleteKey", 5);
  EXPECT_EQ(
      test::ThrownTexts([&] { config.RemoveMount(Mount1); }).back(),
      std::string("Failed to remove  backup mount point from the configuration. Mount UID: [") + Mount1Text + "].");
}

TEST_F(RegConfigTest, TellsWhyAMountCannotBeStored) {
  registry.Fail("SetValues", 112);
  CBackupMountCfg cfg;
  cfg.vmName = "vm";
  cfg.description = "why";
  EXPECT_EQ(test::ThrownTexts([&] { config.SaveMount(Mount1, cfg); }).back(),
            std::string("Failed to register backup mount point [") + Mount1Text + "]. VM name: [vm]. Comment: [why].");
}

TEST_F(RegConfigTest, AFailedEnumerationIsToldWithTheSameTextForSharesAndMounts) {
  config.CreateKeys();
  const auto failFor = [&](const std::string& end) {
    registry.fault = [end](std::string_view operation, std::string_view key) {
      return operation == "VisitKeys" && key.ends_with(end) ? platform::error_t{1009} : platform::error_t{0};
    };
    return test::ThrownTexts([&] { Load(); });
  };
  EXPECT_EQ(failFor("Shared Folders").back(), "Failed to enumerate shared folders registered in configuration.");
  EXPECT_EQ(failFor("Dynamic mounts").back(), "Failed to enumerate shared folders registered in configuration.");
  const auto texts = failFor("ItemsCache");
  EXPECT_EQ(texts.back(), "Failed to enumerate NFS items mounted early.");
  EXPECT_THAT(texts, Contains(R"(Failed to open registry key [SOFTWARE\KelvO\Kelvo NFS\ItemsCache].)"));
  EXPECT_TRUE(log.Has("Enumerating NFS items mounted early. Failed."));
}

TEST_F(RegConfigTest, AShareNeedsTheRootFolder) {
  config.SaveShare(Mount1, {"", "alias"});
  registry.Fail("GetValue", 1009);
  EXPECT_THAT(test::ThrownTexts([&] { Load(); }), Contains("Failed to load registry options."));
}

TEST_F(RegConfigTest, WritesAHostItemAsItIsDescribed) {
  SFsItemSpec spec = HostFile("/srv/nfs/a.vmdk");
  spec.allowedHostAddr = "10.0.0.1;10.0.0.2";
  config.SaveItem(NoFid, "a.vmdk", 18446744073709551614U, spec);
  const std::string key = Item("18446744073709551614");
  EXPECT_EQ(Text(key, "itemName"), "a.vmdk");
  EXPECT_EQ(Text(key, "parentItemFID"), "18446744073709551615");
  EXPECT_EQ(Text(key, "allowedHostAddr"), "10.0.0.1;10.0.0.2");
  const std::string backing = key + "\\" + NilText;
  EXPECT_EQ(Dword(backing, "isFolder"), 0U);
  EXPECT_EQ(Dword(backing, "isRfsItem"), 0U);
  EXPECT_EQ(Text(backing, "path"), "/srv/nfs/a.vmdk");
  std::uint32_t number = 0;
  EXPECT_EQ(registry.GetDword(backing, "rfsSizeLow", number), 2U);
}

TEST_F(RegConfigTest, WritesTheSizeOfARemoteFileInTwoWords) {
  config.SaveItem(1, "disk", 2, RemoteFile(Mount1, "remote\\disk", 0x1122334455667788U));
  const std::string backing = Item("2") + "\\" + Mount1Text;
  EXPECT_EQ(Dword(backing, "isRfsItem"), 1U);
  EXPECT_EQ(Dword(backing, "rfsSizeLow"), 0x55667788U);
  EXPECT_EQ(Dword(backing, "rfsSizeHigh"), 0x11223344U);
  config.SaveItem(1, "folder", 3, RemoteFolder(Mount1, "remote"));
  std::uint32_t number = 0;
  EXPECT_EQ(registry.GetDword(Item("3") + "\\" + Mount1Text, "rfsSizeLow", number), 2U);
}

TEST_F(RegConfigTest, BringsItemsBackAndLinksThem) {
  SFsItemSpec file = HostFile("/srv/nfs/share/ü.txt");
  file.allowedHostAddr = "10.0.0.1";
  SFsItemSpec disk = RemoteFile(Mount2, "d", 0x1122334455667788U);
  config.SaveItem(NoFid, "share", 10, HostFolder("/srv/nfs/share"));
  config.SaveItem(10, "ü.txt", 11, file);
  config.SaveItem(10, "vm", 12, HostFolder("/srv/nfs/share/vm"));
  config.SaveItem(10, "vm", 12, RemoteFolder(Mount1, "root"));
  config.SaveItem(12, "d", 13, disk);
  config.SaveItem(999, "orphan", 14, HostFile("/gone"));

  const SRegConfigData data = Load();
  ASSERT_EQ(data.items.size(), 5U);
  EXPECT_THAT(data.items.at(10).children, ElementsAre(11, 12));
  EXPECT_EQ(data.items.at(10).parentFid, NoFid);
  EXPECT_THAT(data.items.at(12).children, ElementsAre(13));
  EXPECT_THAT(data.items.at(12).instances, ElementsAre(HostFolder("/srv/nfs/share/vm"), RemoteFolder(Mount1, "root")));
  EXPECT_THAT(data.items.at(13).instances, ElementsAre(disk));
  EXPECT_EQ(data.items.at(11).itemName, "ü.txt");
  EXPECT_EQ(data.items.at(11).allowedHostAddr, "10.0.0.1");
  EXPECT_THAT(data.items.at(11).instances, ElementsAre(file));
  EXPECT_EQ(data.items.at(14).parentFid, 999U);
  EXPECT_TRUE(log.Has("Items were enumerated."));
}

TEST_F(RegConfigTest, OneDamagedItemCostsItselfAlone) {
  config.SaveItem(NoFid, "good", 1, HostFile("/good"));
  const auto damage = [&](const std::string& fid) { config.SaveItem(1, "bad", std::stoull(fid), HostFile("/bad")); };
  damage("2");
  ASSERT_EQ(registry.DeleteValue(Item("2"), "itemName"), 0U);
  damage("3");
  Put(Item("3"), "parentItemFID", std::string("-1"));
  damage("4");
  ASSERT_EQ(registry.DeleteValue(Item("4") + "\\" + NilText, "isFolder"), 0U);
  damage("5");
  ASSERT_EQ(registry.CreateKey(Item("5") + "\\no guid"), 0U);
  damage("6");
  Put(Item("6") + "\\" + NilText, "path", 5U);
  for (const char* name : {"abc", "18446744073709551616", "18446744073709551615"}) {
    Put(Item(name), "itemName", std::string("bad"));
    Put(Item(name), "parentItemFID", std::string("1"));
  }
  damage("7");
  Put(Item("7"), "parentItemFID", 1U);

  const SRegConfigData data = Load();
  ASSERT_EQ(data.items.size(), 1U);
  EXPECT_EQ(data.items.at(1).itemName, "good");
  EXPECT_THAT(data.items.at(1).children, IsEmpty());
  for (const char* name : {"2", "3", "4", "5", "6", "7", "abc", "18446744073709551616", "18446744073709551615"}) {
    EXPECT_EQ(
        log.Count(std::string("  Failed to load configuration of the NFS item [") + name + "] from the registry."), 1U)
        << name;
  }
  EXPECT_TRUE(log.Has("Items were enumerated."));
}

TEST_F(RegConfigTest, OptionalValuesMayBeMissing) {
  config.SaveItem(1, "disk", 2, RemoteFile(Mount1, "d", 0x1122334455667788U));
  ASSERT_EQ(registry.DeleteValue(Item("2"), "allowedHostAddr"), 0U);
  ASSERT_EQ(registry.DeleteValue(Item("2") + "\\" + Mount1Text, "rfsSizeHigh"), 0U);
  const SRegConfigData data = Load();
  EXPECT_EQ(data.items.at(2).allowedHostAddr, "");
  EXPECT_EQ(data.items.at(2).instances.at(0).rfsSize, 0x55667788U);
}

TEST_F(RegConfigTest, DeletingTheRemoteBackingKeepsTheHostItem) {
  config.SaveItem(1, "vm", 2, HostFolder("/srv/vm"));
  config.SaveItem(1, "vm", 2, RemoteFolder(Mount1, "root"));
  config.DeleteItem(2, &Mount1);
  EXPECT_TRUE(HasKey(Item("2") + "\\" + NilText));
  EXPECT_FALSE(HasKey(Item("2") + "\\" + Mount1Text));
  EXPECT_THAT(Load().items.at(2).instances, ElementsAre(HostFolder("/srv/vm")));
}

TEST_F(RegConfigTest, DeletingTheLastBackingDeletesTheItem) {
  config.SaveItem(1, "disk", 2, RemoteFile(Mount1, "d", 1));
  config.DeleteItem(2, &Mount2);
  EXPECT_TRUE(HasKey(Item("2")));
  config.DeleteItem(2, &Mount1);
  EXPECT_FALSE(HasKey(Item("2")));
  EXPECT_NO_THROW(config.DeleteItem(2, &Mount1));
}

TEST_F(RegConfigTest, DeletingAnItemTakesItsBackingsAlong) {
  config.SaveItem(1, "vm", 2, HostFolder("/srv/vm"));
  config.SaveItem(1, "vm", 2, RemoteFolder(Mount1, "root"));
  config.DeleteItem(2, nullptr);
  EXPECT_FALSE(HasKey(Item("2")));
  EXPECT_NO_THROW(config.DeleteItem(2, nullptr));
}

TEST_F(RegConfigTest, TellsWhyAnItemCannotBeDeleted) {
  config.SaveItem(1, "disk", 2, RemoteFile(Mount1, "d", 1));
  registry.Fail("DeleteKey", 5);
  auto texts = test::ThrownTexts([&] { config.DeleteItem(2, nullptr); });
  EXPECT_EQ(texts.back(), "Failed to delete item. Item FID: [2].");
  EXPECT_THAT(texts, Contains("Failed to delete registry key [" + Item("2") + "]."));
  registry.Fail("EnumerateKeys", 5);
  texts = test::ThrownTexts([&] { config.DeleteItem(2, &Mount1); });
  EXPECT_EQ(texts.back(), "Failed to delete item. Item FID: [2].");
  EXPECT_THAT(texts, Contains("Failed to open item key " + Item("2")));
  registry.fault = {};
  EXPECT_TRUE(HasKey(Item("2") + "\\" + Mount1Text)) << "half of a deletion was written";
}

TEST_F(RegConfigTest, NothingIsLeftOfAnItemThatFailsInTheMiddle) {
  registry.FailAfter("SetValues", 1, 112);
  const auto texts = test::ThrownTexts([&] { config.SaveItem(1, "disk", 2, RemoteFile(Mount1, "d", 1)); });
  EXPECT_EQ(texts.back(), "Failed to serialize item. Item name: [disk]. FID: [2]. Parent FID: [1].");
  EXPECT_THAT(texts, Contains("Failed to create RFS registry key [" + Item("2") + "\\" + Mount1Text + "]."));
  registry.Fail("SetValues", 112);
  EXPECT_THAT(test::ThrownTexts([&] { config.SaveItem(1, "disk", 2, HostFile("/d")); }),
              Contains("Failed to create registry key [" + Item("2") + "]."));
  registry.Fail("Commit", 112);
  EXPECT_EQ(test::ThrownTexts([&] { config.SaveItem(1, "disk", 2, HostFile("/d")); }).back(),
            "Failed to serialize item. Item name: [disk]. FID: [2]. Parent FID: [1].");
  registry.fault = {};
  EXPECT_FALSE(HasKey(Item("2")));
  EXPECT_NO_THROW(config.SaveItem(1, "disk", 2, HostFile("/d")));
  EXPECT_TRUE(HasKey(Item("2")));
}

TEST_F(RegConfigTest, AMovedItemKeepsEverythingButItsPlace) {
  SFsItemSpec spec = HostFolder("/srv/vm");
  spec.allowedHostAddr = "10.0.0.1";
  config.SaveItem(1, "vm", 2, spec);
  config.SaveItem(1, "vm", 2, RemoteFolder(Mount1, "root"));
  config.MoveItem(2, 5, "vm2");
  const SRegConfigData data = Load();
  EXPECT_EQ(data.items.at(2).parentFid, 5U);
  EXPECT_EQ(data.items.at(2).itemName, "vm2");
  EXPECT_EQ(data.items.at(2).instances.size(), 2U);
  config.MoveItem(77, 5, "nobody");
  EXPECT_FALSE(HasKey(Item("77")));
  registry.Fail("SetValues", 112);
  EXPECT_EQ(test::ThrownTexts([&] { config.MoveItem(2, 6, "vm3"); }).back(),
            "Failed to serialize item. Item name: [vm3]. FID: [2]. Parent FID: [6].");
}

}  // namespace
