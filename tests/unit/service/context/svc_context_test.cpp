#include "service/context/svc_context.h"

#include <filesystem>

#include "config/address_checker.h"
#include "config/address_checker_factory.h"
#include "config/nfs_share_cfg.h"
#include "config/reg_config_ports.h"
#include "config/reg_config_root_folder.h"
#include "config/reg_options.h"
#include "service/context/svc_context_holder.h"
#include "unit/config/config_fixture.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

using testing::Contains;
using testing::ElementsAre;

class SvcContextTest : public test::ConfigFixture {
 protected:
  SvcContextTest() { Put(Root, "RootFolder", folder / "shares"); }
  ~SvcContextTest() override { CSvcContextHolder::Set({}); }

  static boost::shared_ptr<CSvcContext> Make() { return boost::shared_ptr<CSvcContext>(new CSvcContext); }
  static bool Allows(const boost::shared_ptr<IAddressChecker>& checker, const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1);
    return checker->IsAllowed(reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  }
};

TEST_F(SvcContextTest, HandsOutItsServices) {
  Put(Root, "MountPort", 20048U);
  Put(Root, "AllowedAddresses", std::string("10.0.0.1"));
  const CSvcContext context;
  EXPECT_TRUE(context.GetOptions()->IsAsyncTcp());
  EXPECT_EQ(context.GetPorts()->GetMountPort(), 20048);
  EXPECT_EQ(context.GetPorts()->GetNfsPort(), 2049);
  EXPECT_EQ(context.GetRootFolder()->Get(), folder / "shares");
  EXPECT_TRUE(Allows(context.GetAddressChecker(), "10.0.0.1"));
  EXPECT_FALSE(Allows(context.GetAddressChecker(), "10.0.0.2"));
  EXPECT_TRUE(std::filesystem::is_directory(folder / "shares"));
  EXPECT_EQ(context.GetFs(), context.GetFs());
  EXPECT_TRUE(context.GetFs());
}

TEST_F(SvcContextTest, BringsItsServicesUpInOrder) {
  Put(Root, "AllowedAddresses", std::string("10.0.0.1"));
  const CSvcContext context;
  std::vector<std::string> seen;
  for (const std::string& line : log.Texts()) {
    for (const char* mark : {"NFS Server options:", R"(Allow connections from "10.0.0.1")",
                             "Initializing virtual filesystem.", "Virtual filesystem is initialized."}) {
      if (line == mark)
        seen.push_back(line);
    }
  }
  EXPECT_THAT(seen, ElementsAre("NFS Server options:", R"(Allow connections from "10.0.0.1")",
                                "Initializing virtual filesystem.", "Virtual filesystem is initialized."));
}

TEST_F(SvcContextTest, WithoutChecksEveryPeerIsAllowedEverywhere) {
  Put(Root, "QuillNFSDisableIPAuth", 1U);
  const CSvcContext context;
  EXPECT_TRUE(Allows(context.GetAddressChecker(), "192.0.2.1"));
  EXPECT_TRUE(context.GetAddressChecker()->IsEmpty());
  EXPECT_TRUE(Allows(CAddressCheckerFactory::Get()->CreateItemChecker("10.0.0.1"), "192.0.2.1"));
}

TEST_F(SvcContextTest, TheFactoryIsInstalledUntilTheFileSystemHasGone) {
  EXPECT_THROW(CAddressCheckerFactory::Get(), exc::runtime_exc_t);
  boost::shared_ptr<CSvcContext> context = Make();
  EXPECT_NO_THROW(CAddressCheckerFactory::Get());
  boost::shared_ptr<CVirtualFs> running = context->GetFs();
  context.reset();
  const boost::shared_ptr<CNfsShareCfg> cfg(new CNfsShareCfg{folder / "shares", "alias"});
  const GUID share = running->CreateShare(cfg);
  EXPECT_EQ(running->CreateHostFolder(share, "vm", "10.0.0.1"), folder / "shares/vm");
  running.reset();
  EXPECT_THROW(CAddressCheckerFactory::Get(), exc::runtime_exc_t);
}

TEST_F(SvcContextTest, AnOlderContextLeavesTheFactoryOfANewerOneAlone) {
  boost::shared_ptr<CSvcContext> first = Make();
  const boost::shared_ptr<CSvcContext> second = Make();
  first.reset();
  EXPECT_NO_THROW(CAddressCheckerFactory::Get());
}

TEST_F(SvcContextTest, AFailureLeavesNothingBehind) {
  registry.fault = [](std::string_view operation, std::string_view key) {
    return operation == "VisitKeys" && key.ends_with("Shared Folders") ? platform::error_t{1009} : platform::error_t{0};
  };
  const auto texts = test::ThrownTexts([] { CSvcContext context; });
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.back(), "Failed to initialize");
  EXPECT_THAT(texts, Contains("Failed to initialize virtual file system."));
  EXPECT_THAT(texts, Contains("Failed to enumerate shared folders registered in configuration."));
  EXPECT_THROW(CAddressCheckerFactory::Get(), exc::runtime_exc_t);
  EXPECT_THROW(CSvcContextHolder::Get(), exc::runtime_exc_t);
}

TEST_F(SvcContextTest, TheHolderTellsWhenItIsEmpty) {
  EXPECT_THAT(test::ThrownTexts([] { CSvcContextHolder::Get(); }), ElementsAre("Service context is not initialized."));
  const boost::shared_ptr<CSvcContext> context = Make();
  EXPECT_THROW(CSvcContextHolder::Get(), exc::runtime_exc_t) << "a context publishes itself";
  CSvcContextHolder::Set(context);
  EXPECT_EQ(CSvcContextHolder::Get(), context);
}

TEST_F(SvcContextTest, ARunningCallKeepsItsContextAfterTheStop) {
  CSvcContextHolder::Set(Make());
  const boost::shared_ptr<CSvcContext> running = CSvcContextHolder::Get();
  CSvcContextHolder::Set({});
  EXPECT_THAT(test::ThrownTexts([] { CSvcContextHolder::Get(); }), ElementsAre("Service context is not initialized."));
  const GUID share =
      running->GetFs()->CreateShare(boost::shared_ptr<CNfsShareCfg>(new CNfsShareCfg{folder / "shares", "alias"}));
  EXPECT_EQ(running->GetFs()->GetShareId("alias"), share);
}

}  // namespace
