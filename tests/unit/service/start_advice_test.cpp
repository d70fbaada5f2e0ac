#include "service/start_advice.h"

#include <gtest/gtest.h>

#include "foundation/exc.h"
#include "platform/environment.h"

namespace {

constexpr char BindText[] = "Failed to bind socket object to port \"111\".";

TEST(StartAdvice, AccountWithoutThePrivilegeIsToldWhatItLacks) {
  EXPECT_EQ(AdviceForFailedStart(exc::win_sys_exc_t(BindText, 10013)),
            "This account may not bind port 111: run KelvoNfsSvc as root or with the capability CAP_NET_BIND_SERVICE.");
}

TEST(StartAdvice, WhoHasAMountWithoutFolderIsToldHowToBeRidOfIt) {
  exc::runtime_exc_t failure("The specified mount folder does not exist.");
  failure.AddMessage(
      "Failed to publish backup items. VM: [Mount ID: [x]]. Comment: []. NFS mount point: [vm1]. Mount ID: [{1-2}].");
  failure.AddMessage("Failed to initialize virtual file system.");
  EXPECT_EQ(AdviceForFailedStart(failure),
            "Make the folder of the backup mount again, or withdraw the mount: "
            "kelvo-reg delete 'SOFTWARE/KelvO/Kelvo NFS/Dynamic mounts/{1-2}'");
}

TEST(StartAdvice, WhoHasAnUnfitRegistryIsToldWhichFileItIs) {
  const std::string file = platform::CommonAppDataFolder() + "/Kelvo/registry.db";
  for (const platform::error_t code : {1009U, 1306U, 33U}) {
    exc::win_sys_exc_t failure("Failed to open registry key [SOFTWARE].", code);
    failure.AddMessage("Failed to initialize");
    const auto advice = AdviceForFailedStart(failure);
    ASSERT_TRUE(advice) << code;
    EXPECT_NE(advice->find(file), std::string::npos) << *advice;
  }
}

TEST(StartAdvice, OtherFailuresSpeakForThemselves) {
  EXPECT_FALSE(AdviceForFailedStart(exc::win_sys_exc_t(BindText, 10048)));
  EXPECT_FALSE(AdviceForFailedStart(exc::win_sys_exc_t("Cannot create socket", 10013)));
  EXPECT_FALSE(AdviceForFailedStart(exc::runtime_exc_t(std::string(BindText))));
  EXPECT_FALSE(AdviceForFailedStart(std::out_of_range(BindText)));
}

}  // namespace
