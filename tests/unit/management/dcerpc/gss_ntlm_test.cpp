#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <tuple>

#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "unit/management/dcerpc/security_pair.h"

namespace {

using dcerpc::auth_level_t;
using dcerpc::auth_type_t;
using dcerpc::bytes_t;
using dcerpc::CGssInitiator;
using dcerpc::CGssProvider;
using dcerpc::ISecurityContext;
using dcerpc::SInitiatorSettings;
using test::ExpectTalk;
using test::Handshake;
using test::Message;
using test::Protected;
using test::refusal_t;

constexpr auth_level_t AllLevels[] = {auth_level_t::Connect, auth_level_t::Call, auth_level_t::Packet,
                                      auth_level_t::Integrity, auth_level_t::Privacy};

class GssNtlmFixture : public testing::Test {
 protected:
  GssNtlmFixture() {
    test::WriteFile(users_, "TEST:admin:secret\nTEST:guest:other\n");
    ::chmod(users_.c_str(), 0600);
    test::WriteFile(folder_ / "krb5.conf", test::QuietKerberos);
    provider_ = MakeProvider();
  }

  std::unique_ptr<CGssProvider> MakeProvider() {
    return std::make_unique<CGssProvider>(
        std::make_shared<dcerpc::CAccountMap>(std::make_shared<test::FakeAccounts>()));
  }
  std::unique_ptr<ISecurityContext> MakeClient(auth_type_t type, auth_level_t level,
                                               const std::string& user = "TEST\\admin",
                                               const std::string& password = "secret") {
    return std::make_unique<CGssInitiator>(SInitiatorSettings{type, level, "server.test", user, password});
  }
  void Connect(auth_type_t type, auth_level_t level) {
    client_ = MakeClient(type, level);
    server_ = provider_->Accept(type, level);
    Handshake().Run(*client_, *server_);
  }
  /// What a client with these credentials gets at the end.
  std::string AccountOf(const std::string& user, const std::string& password) {
    server_ = provider_->Accept(auth_type_t::Ntlm, auth_level_t::Packet);
    Handshake().Run(*MakeClient(auth_type_t::Ntlm, auth_level_t::Packet, user, password), *server_);
    return server_->PeerAccount();
  }

  test::TempDir folder_;
  const std::string users_ = folder_ / "users";
  test::ScopedEnvironment userFile_{"NTLM_USER_FILE", users_};
  /// No keys of this machine.
  test::ScopedEnvironment kerberos_{"KRB5_CONFIG", folder_ / "krb5.conf"};
  test::ScopedEnvironment keytab_{"KRB5_KTNAME", folder_ / "none.keytab"};
  std::unique_ptr<CGssProvider> provider_;
  std::unique_ptr<ISecurityContext> client_;
  std::unique_ptr<ISecurityContext> server_;
};

class GssNtlmTest : public GssNtlmFixture, public testing::WithParamInterface<auth_type_t> {};

TEST_P(GssNtlmTest, TalksAtEachLevel) {
  for (const auth_level_t level : AllLevels) {
    SCOPED_TRACE(static_cast<int>(level));
    Connect(GetParam(), level);
    EXPECT_EQ(server_->PeerName(), "TEST\\admin");
    EXPECT_EQ(server_->PeerAccount(), "admin");
    EXPECT_EQ(client_->PeerName(), "server.test");
    EXPECT_EQ(client_->PeerAccount(), "");
    if (level == auth_level_t::Connect) {
      EXPECT_THROW(server_->SignatureSize(16), refusal_t);
      continue;
    }
    EXPECT_EQ(server_->SignatureSize(16), 16U);
    ExpectTalk(*client_, *server_, false, level == auth_level_t::Privacy);
    ExpectTalk(*client_, *server_, true, level == auth_level_t::Privacy);
  }
}

TEST_P(GssNtlmTest, RefusesAWrongPasswordAndUnknownUsers) {
  for (const auto& [user, password] : {std::pair("TEST\\admin", "Secret"), std::pair("TEST\\admin", "other"),
                                       std::pair("TEST\\nobody", "secret"), std::pair("FOREIGN\\admin", "secret")}) {
    const auto client = MakeClient(GetParam(), auth_level_t::Integrity, user, password);
    const auto server = provider_->Accept(GetParam(), auth_level_t::Integrity);
    EXPECT_THROW(Handshake().Run(*client, *server), refusal_t) << user;
    EXPECT_FALSE(server->IsEstablished());
    EXPECT_EQ(server->PeerAccount(), "");
    EXPECT_THROW(server->Step(bytes_t{1}), refusal_t);
  }
}

TEST_P(GssNtlmTest, FindsChangesInEachPart) {
  for (const auth_level_t level : {auth_level_t::Packet, auth_level_t::Integrity, auth_level_t::Privacy}) {
    const std::size_t size = Message("stub of 16 bytes", 16, true).bytes.size();
    for (const std::size_t place : {std::size_t{0}, Message::HeaderSize, size - 24, size - 16, size - 5, size - 1}) {
      Connect(GetParam(), level);
      Message message = Protected(*client_, "stub of 16 bytes", true);
      message.bytes.at(place) ^= 1;
      EXPECT_THROW(server_->Unprotect(message.Fragment()), refusal_t) << place;
      // The context is of no use from here on, not even for what is right.
      EXPECT_FALSE(server_->IsEstablished());
      Message next = Protected(*client_, "stub of 16 bytes", true);
      EXPECT_THROW(server_->Unprotect(next.Fragment()), refusal_t);
    }
  }
}

TEST_P(GssNtlmTest, RefusesRepeatedAndReorderedFragments) {
  Connect(GetParam(), auth_level_t::Packet);
  Message first = Protected(*client_, "first", false);
  Message copy = first;
  server_->Unprotect(first.Fragment());
  EXPECT_THROW(server_->Unprotect(copy.Fragment()), refusal_t);

  Connect(GetParam(), auth_level_t::Privacy);
  Message early = Protected(*client_, "early", false);
  Message late = Protected(*client_, "late", false);
  EXPECT_THROW(server_->Unprotect(late.Fragment()), refusal_t);
  EXPECT_THROW(server_->Unprotect(early.Fragment()), refusal_t);
}

TEST_P(GssNtlmTest, RefusesTokensCutAtEachLength) {
  Handshake whole;
  whole.Run(*MakeClient(GetParam(), auth_level_t::Packet), *provider_->Accept(GetParam(), auth_level_t::Packet));
  const bytes_t& first = whole.toAcceptor.at(0);
  for (std::size_t length = 0; length < first.size(); ++length) {
    const auto server = provider_->Accept(GetParam(), auth_level_t::Packet);
    try {
      server->Step(dcerpc::bytes_view_t(first).first(length));
    } catch (const refusal_t&) {
      EXPECT_THROW(server->Step(first), refusal_t);
    }
    EXPECT_FALSE(server->IsEstablished()) << length;
  }
  // The second one belongs to the challenge of its own handshake, so each length takes a handshake.
  const std::size_t size = whole.toAcceptor.at(1).size();
  for (std::size_t length = 0; length < size; ++length) {
    const auto client = MakeClient(GetParam(), auth_level_t::Packet);
    const auto server = provider_->Accept(GetParam(), auth_level_t::Packet);
    const bytes_t second = client->Step(server->Step(client->Step({})));
    EXPECT_THROW(server->Step(dcerpc::bytes_view_t(second).first(std::min(length, second.size() - 1))), refusal_t)
        << length;
    EXPECT_FALSE(server->IsEstablished()) << length;
  }
}

TEST_P(GssNtlmTest, SurvivesRandomTokens) {
  std::mt19937 random(20240229);
  const bytes_t first = MakeClient(GetParam(), auth_level_t::Packet)->Step({});
  for (int round = 0; round < 300; ++round) {
    const auto server = provider_->Accept(GetParam(), auth_level_t::Packet);
    bytes_t token = first;
    if (round % 3 == 0) {
      token.resize(random() % 200);
      for (std::uint8_t& byte : token)
        byte = static_cast<std::uint8_t>(random());
    } else {
      for (int change = 0; change <= round % 5; ++change)
        token[random() % token.size()] = static_cast<std::uint8_t>(random());
    }
    try {
      server->Step(token);
      server->Step(token);
    } catch (const refusal_t&) {
    }
    EXPECT_FALSE(server->IsEstablished()) << round;
  }
}

TEST_P(GssNtlmTest, RefusesAChangedAnswerToTheChallenge) {
  std::mt19937 random(42);
  for (int round = 0; round < 100; ++round) {
    const auto client = MakeClient(GetParam(), auth_level_t::Packet);
    const auto server = provider_->Accept(GetParam(), auth_level_t::Packet);
    bytes_t second = client->Step(server->Step(client->Step({})));
    const std::size_t place = random() % second.size();
    second[place] = static_cast<std::uint8_t>(second[place] ^ (1U << random() % 8));
    try {
      server->Step(second);
      // Some bytes mean nothing (the version, the case of a name); then the talk must work or be refused as a whole.
      EXPECT_EQ(server->PeerAccount(), "admin") << place;
    } catch (const refusal_t&) {
      EXPECT_FALSE(server->IsEstablished());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Types, GssNtlmTest, testing::Values(auth_type_t::Ntlm, auth_type_t::Negotiate));

class GssProviderTest : public GssNtlmFixture {};

TEST_F(GssProviderTest, MapsNamesToAccounts) {
  EXPECT_EQ(AccountOf("TEST\\admin", "secret"), "admin");
  EXPECT_EQ(AccountOf("TEST\\ADMIN", "secret"), "admin");
  EXPECT_EQ(server_->PeerName(), "TEST\\ADMIN");
  EXPECT_EQ(AccountOf("TEST\\guest", "other"), "guest");
}

TEST_F(GssProviderTest, APeerWithoutAnAccountIsProvedButMapsToNone) {
  test::WriteFile(users_, "TEST:stranger:secret\n");
  EXPECT_EQ(AccountOf("TEST\\stranger", "secret"), "");
  EXPECT_EQ(server_->PeerName(), "TEST\\stranger");
}

TEST_F(GssProviderTest, ADifferentTypeIsRefused) {
  const bytes_t raw = MakeClient(auth_type_t::Ntlm, auth_level_t::Packet)->Step({});
  const bytes_t negotiated = MakeClient(auth_type_t::Negotiate, auth_level_t::Packet)->Step({});
  EXPECT_THROW(provider_->Accept(auth_type_t::Kerberos, auth_level_t::Packet)->Step(raw), refusal_t);
  EXPECT_THROW(provider_->Accept(auth_type_t::Kerberos, auth_level_t::Packet)->Step(negotiated), refusal_t);
  EXPECT_THROW(provider_->Accept(auth_type_t::Ntlm, auth_level_t::Packet)->Step(negotiated), refusal_t);
}

TEST_F(GssProviderTest, NegotiateTakesBareNtlmToo) {
  server_ = provider_->Accept(auth_type_t::Negotiate, auth_level_t::Privacy);
  client_ = MakeClient(auth_type_t::Ntlm, auth_level_t::Privacy);
  Handshake().Run(*client_, *server_);
  ExpectTalk(*client_, *server_, true, true);
}

TEST_F(GssProviderTest, TakesAShortNegotiateMessage) {
  bytes_t first = MakeClient(auth_type_t::Ntlm, auth_level_t::Packet)->Step({});
  // Both names empty and nothing after them.
  for (std::size_t i = 16; i < 32; ++i)
    first.at(i) = 0;
  // Neither names nor a version are told.
  first.at(13) = static_cast<std::uint8_t>(first.at(13) & ~0x30);
  first.at(15) = static_cast<std::uint8_t>(first.at(15) & ~0x02);
  for (const std::size_t size : {std::size_t{16}, std::size_t{32}, std::size_t{39}}) {
    const auto server = provider_->Accept(auth_type_t::Ntlm, auth_level_t::Packet);
    const bytes_t challenge = server->Step(dcerpc::bytes_view_t(first).first(size));
    EXPECT_EQ(std::string(challenge.begin(), challenge.begin() + 7), "NTLMSSP");
  }
  EXPECT_THROW(provider_->Accept(auth_type_t::Ntlm, auth_level_t::Packet)->Step(dcerpc::bytes_view_t(first).first(15)),
               refusal_t);
}

TEST_F(GssProviderTest, RefusesWeakNtlm) {
  // The bits of 128-bit keys, key exchange and extended session security in the NEGOTIATE message.
  for (const auto& [place, bit] : {std::pair(15, 0x20), std::pair(15, 0x40), std::pair(14, 0x08)}) {
    client_ = MakeClient(auth_type_t::Ntlm, auth_level_t::Connect);
    server_ = provider_->Accept(auth_type_t::Ntlm, auth_level_t::Connect);
    bytes_t first = client_->Step({});
    first.at(static_cast<std::size_t>(place)) =
        static_cast<std::uint8_t>(first.at(static_cast<std::size_t>(place)) & ~bit);
    EXPECT_THROW(server_->Step(client_->Step(server_->Step(first))), refusal_t) << place << ' ' << bit;
    EXPECT_FALSE(server_->IsEstablished());
  }
}

TEST_F(GssProviderTest, RefusesAFileThatOthersMayRead) {
  test::CapturedLog log;
  for (const mode_t mode : {0640U, 0604U, 0620U}) {
    ::chmod(users_.c_str(), mode);
    log.Clear();
    provider_ = MakeProvider();
    EXPECT_EQ(log.Texts("Warning").size(), 1U);
    EXPECT_THROW(AccountOf("TEST\\admin", "secret"), refusal_t) << mode;
    EXPECT_EQ(log.Texts("Warning").size(), 1U);
  }
  EXPECT_EQ(log.Texts("Warning").at(0),
            "The file of NTLM users [" + users_ +
                "] is not used. Others than its owner may access it; its mode must be 0600.");
  ::chmod(users_.c_str(), 0600);
  EXPECT_EQ(AccountOf("TEST\\admin", "secret"), "admin");
}

TEST_F(GssProviderTest, FindsTheFileBelowTheFolderOfTheService) {
  test::ScopedEnvironment none("NTLM_USER_FILE", "");
  test::ScopedEnvironment data("ALLUSERSPROFILE", folder_.Path().string());
  provider_ = MakeProvider();
  EXPECT_THROW(AccountOf("TEST\\admin", "secret"), refusal_t);
  std::filesystem::create_directory(folder_ / "Kelvo");
  std::filesystem::copy(users_, folder_ / "Kelvo/ntlm-users");
  ::chmod((folder_ / "Kelvo/ntlm-users").c_str(), 0600);
  EXPECT_EQ(AccountOf("TEST\\admin", "secret"), "admin");
}

TEST_F(GssProviderTest, ServesTheThreeTypesAndTheLevelsFromConnectOn) {
  for (const auth_type_t type : {auth_type_t::Negotiate, auth_type_t::Ntlm, auth_type_t::Kerberos}) {
    std::string error = "old";
    EXPECT_TRUE(CGssProvider::IsAvailable(type, &error)) << error;
    EXPECT_EQ(error, "");
    EXPECT_TRUE(CGssProvider::IsAvailable(type, nullptr));
    EXPECT_THROW(provider_->Accept(type, auth_level_t::None), refusal_t);
    EXPECT_THROW(provider_->Accept(type, static_cast<auth_level_t>(7)), refusal_t);
    EXPECT_THROW(provider_->Accept(type, static_cast<auth_level_t>(0)), refusal_t);
  }
  for (const int type : {0, 1, 11, 68, 255}) {
    std::string error;
    EXPECT_FALSE(CGssProvider::IsAvailable(static_cast<auth_type_t>(type), &error));
    EXPECT_EQ(error, "The authentication type " + std::to_string(type) + " is not served.");
    EXPECT_THROW(provider_->Accept(static_cast<auth_type_t>(type), auth_level_t::Packet), refusal_t);
  }
}

/// Ends the process with the bits of the types that are available: Negotiate 1, NTLM 2, Kerberos 4.
[[noreturn]] void ExitWithTypes() {
  const auto bit = [](auth_type_t type, int value) { return CGssProvider::IsAvailable(type, nullptr) ? value : 0; };
  std::_Exit(bit(auth_type_t::Negotiate, 1) | bit(auth_type_t::Ntlm, 2) | bit(auth_type_t::Kerberos, 4));
}

TEST(GssProviderDeathTest, LivesWithoutNtlm) {
  // The library reads its configuration once in a process, so this takes another one.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const test::TempDir folder;
  test::WriteFile(folder / "empty", "");
  {
    const test::ScopedEnvironment mechanisms("GSS_MECH_CONFIG", folder / "empty");
    EXPECT_EXIT(ExitWithTypes(), testing::ExitedWithCode(1 | 4), "");
  }
  // Configured, but not there.
  test::WriteFile(folder / "gone", "gssntlmssp_v1 1.3.6.1.4.1.311.2.2.10 " + (folder / "gone.so") + "\n");
  const test::ScopedEnvironment mechanisms("GSS_MECH_CONFIG", folder / "gone");
  EXPECT_EXIT(ExitWithTypes(), testing::ExitedWithCode(1 | 4), "");
}

}  // namespace
