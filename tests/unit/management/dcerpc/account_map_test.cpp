#include "management/dcerpc/account_map.h"

#include <gtest/gtest.h>

#include "unit/management/dcerpc/security_pair.h"

namespace {

using namespace std::string_view_literals;

class AccountMapTest : public testing::Test {
 protected:
  const std::shared_ptr<test::FakeAccounts> accounts_ = std::make_shared<test::FakeAccounts>();
  const dcerpc::CAccountMap map_{accounts_};
};

TEST_F(AccountMapTest, NtlmNamesLoseTheirDomainAndThenTheirCase) {
  EXPECT_EQ(map_.AccountOfNtlmName("admin"), "admin");
  EXPECT_EQ(map_.AccountOfNtlmName("Admin"), "admin");
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\admin"), "admin");
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\ADMIN"), "admin");
  EXPECT_EQ(map_.AccountOfNtlmName("\\guest"), "guest");
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\nobody-here"), "");
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\sub\\admin"), "");
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\"), "");
  EXPECT_EQ(map_.AccountOfNtlmName(""), "");
  EXPECT_EQ(map_.AccountOfNtlmName("admin@HOME"), "");
}

TEST_F(AccountMapTest, TheNearestSpellingWins) {
  accounts_->names.insert({"Admin", "HOME\\guest"});
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\Admin"), "Admin");
  EXPECT_EQ(map_.AccountOfNtlmName("HOME\\guest"), "HOME\\guest");
  EXPECT_EQ(map_.AccountOfNtlmName("AWAY\\guest"), "guest");
}

TEST_F(AccountMapTest, AZeroByteEndsNoName) {
  EXPECT_EQ(map_.AccountOfNtlmName("admin\0x"sv), "");
  EXPECT_EQ(map_.AccountOfLocalName("root\0"sv), "");
}

TEST_F(AccountMapTest, LocalNamesAreExact) {
  EXPECT_EQ(map_.AccountOfLocalName("admin"), "admin");
  EXPECT_EQ(map_.AccountOfLocalName("Admin"), "");
  EXPECT_EQ(map_.AccountOfLocalName("HOME\\admin"), "");
  EXPECT_EQ(map_.AccountOfLocalName(""), "");
}

TEST(SystemAccountsTest, KnowsTheAccountsOfTheSystem) {
  const std::unique_ptr<dcerpc::IAccountDatabase> accounts = dcerpc::MakeSystemAccounts();
  EXPECT_TRUE(accounts->HasAccount("root"));
  EXPECT_FALSE(accounts->HasAccount("Root"));
  EXPECT_FALSE(accounts->HasAccount("there is no such account"));
}

}  // namespace
