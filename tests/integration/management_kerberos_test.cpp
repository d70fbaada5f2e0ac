// The management endpoint under callers with Kerberos tickets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "integration/support/judges.h"
#include "integration/support/wire.h"

namespace {

using namespace test;
using testing::ElementsAre;
using testing::HasSubstr;

class CManagementKerberosTest : public CJudgesTest {
 protected:
  void SetUp() override {
    realm_.Add("judge-admin", "secret");
    realm_.Add("judge-other", "other");
    CJudgesTest::SetUp();
  }
  SResult Ctl(const texts_t& options) {
    texts_t command{Program("kelvo-nfsctl"), "--endpoint", std::string("tcp:") + RealmHost + ":6161"};
    command.insert(command.end(), options.begin(), options.end());
    return RunProgram(command, service_.Environment());
  }

  CRealm realm_;
};

TEST_F(CManagementKerberosTest, AnAdministratorIsKnownByHisTicket) {
  realm_.LogIn("judge-admin", "secret");
  for (const char* const level : {"connect", "packet", "integrity", "privacy"}) {
    for (const char* const auth : {"kerberos", "negotiate"}) {
      SCOPED_TRACE(std::string(auth) + " " + level);
      EXPECT_EQ(Ask(Samba, ByTicket(auth, level), FewCalls, RealmHost), FewForAdministrators);
      EXPECT_EQ(Ask(Samba, With(ByTicket(auth, level), {"--big"}), FewCalls, RealmHost), FewForAdministrators);
      const SResult result = Ctl({"--auth", auth, "--level", level, "share", "show", "/share"});
      EXPECT_EQ(result.exitCode, 0) << result.err;
      EXPECT_THAT(result.out, HasSubstr("  /share\n"));
    }
  }
}

TEST_F(CManagementKerberosTest, ImpacketNegotiatesByTicket) {
  realm_.LogIn("judge-admin", "secret");
  // Its signatures alone fail in its own code, so there is no level between.
  for (const char* const level : {"connect", "privacy"})
    EXPECT_EQ(Ask(Impacket, ByTicket("negotiate", level), FewCalls, RealmHost), FewForAdministrators) << level;
  const std::string large(30000, 'x');
  EXPECT_THAT(Ask(Impacket, With(ByTicket("negotiate", "privacy"), {"--fragment", "500"}),
                  {"InvokerTestConnection\t" + large, Command(large)}, RealmHost),
              ElementsAre("1\t-", "0\t-\tUnknown command: '" + large + "'."));
}

TEST_F(CManagementKerberosTest, ManyFragmentsAreProtectedByTicket) {
  realm_.LogIn("judge-admin", "secret");
  const std::string large(30000, 'x');
  for (const char* const auth : {"kerberos", "negotiate"}) {
    for (const char* const level : {"integrity", "privacy"}) {
      SCOPED_TRACE(std::string(auth) + " " + level);
      EXPECT_THAT(Ask(Samba, ByTicket(auth, level), {"InvokerTestConnection\t" + large, Command(large), Command("x")},
                      RealmHost),
                  ElementsAre("1\t-", "0\t-\tUnknown command: '" + large + "'.", "0\t-\tUnknown command: 'x'."));
    }
  }
}

TEST_F(CManagementKerberosTest, ATicketOfSomeoneElseManagesNothing) {
  realm_.LogIn("judge-other", "other");
  const texts_t calls = With(FewCalls, {Command("CreateShare", Value("nfsFolderPath", "/stolen"))});
  const texts_t answers = With(FewForOthers, {NotMember});
  EXPECT_EQ(Ask(Impacket, ByTicket("negotiate", "privacy"), calls, RealmHost), answers);
  EXPECT_EQ(Ask(Samba, ByTicket("negotiate", "privacy"), calls, RealmHost), answers);
  EXPECT_EQ(Ask(Samba, ByTicket("kerberos", "integrity"), calls, RealmHost), answers);
  const SResult result = Ctl({"share", "create", "/stolen"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("RPC client is not a member of built-in Administrators group."));
  EXPECT_FALSE(CNfsClient().Mount("/stolen").has_value());
}

TEST_F(CManagementKerberosTest, APrincipalIsTheAccountThatTheRealmMapsItTo) {
  realm_.Add("root", "secret");
  realm_.LogIn("root", "secret");
  EXPECT_EQ(Ask(Samba, ByTicket("kerberos", "privacy"), FewCalls, RealmHost), FewForAdministrators);
  // No account has this name, and it loses no part of it.
  for (const char* const user : {"root/admin", "judge-admin/host"}) {
    realm_.Add(user, "secret");
    realm_.LogIn(user, "secret");
    EXPECT_EQ(Ask(Samba, ByTicket("kerberos", "privacy"), FewCalls, RealmHost), FewForOthers) << user;
    EXPECT_EQ(Ask(Samba, ByTicket("negotiate", "privacy"), FewCalls, RealmHost), FewForOthers) << user;
  }
}

TEST_F(CManagementKerberosTest, WithoutATicketNothingIsManaged) {
  realm_.LogIn("judge-admin", "secret");
  realm_.LogOut();
  const SResult result = Ctl({"--auth", "kerberos", "locks"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.err, HasSubstr("get a Kerberos ticket with kinit first"));
}

}  // namespace
