#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "management/caller_test.h"
#include "unit/config/config_fixture.h"

namespace {

using dcerpc::SCaller;
using test::ThrownTexts;
using testing::ElementsAre;
using testing::IsEmpty;

class FakeAccounts : public security::IAccounts {
 public:
  std::optional<std::uint32_t> FindUserId(const std::string& account) const override {
    if (userFails)
      throw exc::win_sys_exc_t("Auth context not available", 5);
    const auto found = users.find(account);
    return found == users.end() ? std::nullopt : std::optional(found->second);
  }
  bool IsMember(const std::string& account, const std::string& group) const override {
    if (groupFails)
      throw exc::win_sys_exc_t("Client security group list retrieval failed", 5);
    return group == "kelvo-admins" && members.contains(account);
  }
  std::uint32_t OwnUserId() const override { return 900; }

  bool userFails = false;
  bool groupFails = false;
  std::map<std::string, std::uint32_t> users{
      {"root", 0}, {"toor", 0}, {"service", 900}, {"member", 1000}, {"other", 1001}};
  std::set<std::string> members{"member", "not here"};
};

SCaller Local(const std::string& account) {
  return {.account = account,
          .principal = account,
          .origin = "unix:1234",
          .level = dcerpc::auth_level_t::Privacy,
          .authenticated = true};
}

SCaller Remote(const std::string& account) {
  return {.account = account,
          .principal = "DOMAIN\\" + account,
          .origin = "10.0.0.1:5000",
          .level = dcerpc::auth_level_t::Connect,
          .authenticated = true};
}

const std::vector<std::string> NotMember = {
    "Access is denied.", "RPC client is not a member of built-in Administrators group.", "Error code: 2147942405"};

class CallerTest : public testing::Test {
 protected:
  std::vector<std::string> Texts(const SCaller& caller) {
    return ThrownTexts([&] { security::CheckCaller(caller, accounts); });
  }
  FakeAccounts accounts;
};

TEST_F(CallerTest, RootAndMembersPass) {
  for (const char* account : {"root", "toor", "member"}) {
    EXPECT_THAT(Texts(Local(account)), IsEmpty()) << account;
    EXPECT_THAT(Texts(Remote(account)), IsEmpty()) << account;
  }
}

TEST_F(CallerTest, TheServicesOwnUserPassesOnTheLocalSocketAlone) {
  EXPECT_THAT(Texts(Local("service")), IsEmpty());
  EXPECT_EQ(Texts(Remote("service")), NotMember);
}

TEST_F(CallerTest, AnyoneElseIsNoMember) {
  for (const char* account : {"other", "not here", ""}) {
    EXPECT_EQ(Texts(Local(account)), NotMember) << account;
    EXPECT_EQ(Texts(Remote(account)), NotMember) << account;
  }
}

TEST_F(CallerTest, WithoutAuthenticationNobodyIsAMember) {
  EXPECT_EQ(Texts({}), NotMember);
  SCaller caller = Remote("root");
  caller.authenticated = false;
  EXPECT_EQ(Texts(caller), NotMember);
  caller = Local("root");
  caller.authenticated = false;
  EXPECT_EQ(Texts(caller), NotMember);
}

TEST_F(CallerTest, ATestThatFailsIsToldAsThat) {
  const std::string chained = "Failed to check whether RPC client is a member of the specified built-in group.";
  accounts.groupFails = true;
  EXPECT_THAT(Texts(Remote("member")), ElementsAre("Access is denied.", "Client security group list retrieval failed",
                                                   "Error code: 5", chained));
  EXPECT_THAT(Texts(Remote("root")), IsEmpty()) << "nobody has to ask for its groups";
  accounts.userFails = true;
  EXPECT_THAT(Texts(Remote("member")),
              ElementsAre("Access is denied.", "Auth context not available", "Error code: 5", chained));
}

TEST_F(CallerTest, TheAccountsOfThisMachineAreAsked) {
  const security::IAccounts& local = security::LocalAccounts();
  EXPECT_EQ(local.FindUserId("root"), 0U);
  EXPECT_EQ(local.FindUserId("there is no such account"), std::nullopt);
  EXPECT_TRUE(local.IsMember("root", "root"));
  EXPECT_FALSE(local.IsMember("root", "there is no such group"));
  EXPECT_THAT(ThrownTexts([&] { security::CheckCaller(Local("root"), local); }), IsEmpty());
  EXPECT_EQ(ThrownTexts([&] { security::CheckCaller(Remote("nobody"), local); }), NotMember);
}

}  // namespace
