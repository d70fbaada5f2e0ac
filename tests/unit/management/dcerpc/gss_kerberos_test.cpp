#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "management/dcerpc/spnego_token.h"
#include "unit/management/dcerpc/security_pair.h"
#include "unit/management/dcerpc/test_kdc.h"

namespace {

using dcerpc::auth_level_t;
using dcerpc::auth_type_t;
using dcerpc::bytes_t;
using dcerpc::bytes_view_t;
using dcerpc::CGssInitiator;
using dcerpc::CGssProvider;
using dcerpc::ISecurityContext;
using dcerpc::SInitiatorSettings;
using test::ExpectTalk;
using test::Handshake;
using test::Message;
using test::Protected;
using test::refusal_t;

constexpr auth_level_t ProtectingLevels[] = {auth_level_t::Packet, auth_level_t::Integrity, auth_level_t::Privacy};

class GssKerberosTest : public testing::TestWithParam<auth_type_t> {
 protected:
  static void SetUpTestSuite() { kdc_ = std::make_unique<test::TestKdc>(); }
  static void TearDownTestSuite() { kdc_.reset(); }

  GssKerberosTest() {
    test::WriteFile(*kdc_ / "ntlm-users", "TEST:admin:secret\n");
    ::chmod((*kdc_ / "ntlm-users").c_str(), 0600);
    kdc_->LogIn("admin");
    provider_ =
        std::make_unique<CGssProvider>(std::make_shared<dcerpc::CAccountMap>(std::make_shared<test::FakeAccounts>()));
  }

  std::unique_ptr<ISecurityContext> MakeClient(auth_level_t level) {
    return std::make_unique<CGssInitiator>(SInitiatorSettings{GetParam(), level, "server.test", {}, {}});
  }
  void Connect(auth_level_t level) {
    client_ = MakeClient(level);
    server_ = provider_->Accept(GetParam(), level);
    Handshake().Run(*client_, *server_);
  }

  static std::unique_ptr<test::TestKdc> kdc_;
  test::ScopedEnvironment userFile_{"NTLM_USER_FILE", *kdc_ / "ntlm-users"};
  std::unique_ptr<CGssProvider> provider_;
  std::unique_ptr<ISecurityContext> client_;
  std::unique_ptr<ISecurityContext> server_;
};

std::unique_ptr<test::TestKdc> GssKerberosTest::kdc_;

TEST_P(GssKerberosTest, TalksAtEachLevel) {
  Connect(auth_level_t::Connect);
  EXPECT_EQ(server_->PeerName(), "admin@KELVO.TEST");
  EXPECT_EQ(server_->PeerAccount(), "admin");
  EXPECT_THROW(server_->SignatureSize(16), refusal_t);
  for (const auth_level_t level : ProtectingLevels) {
    for (const bool headerSigned : {false, true}) {
      SCOPED_TRACE(static_cast<int>(level));
      Connect(level);
      ExpectTalk(*client_, *server_, headerSigned, level == auth_level_t::Privacy);
    }
  }
}

TEST_P(GssKerberosTest, FindsChangesAndRepetitions) {
  for (const auth_level_t level : ProtectingLevels) {
    Connect(level);
    const std::size_t size = Message("stub of 16 bytes", server_->SignatureSize(16), true).bytes.size();
    const std::size_t authSize = server_->SignatureSize(16);
    for (const std::size_t place :
         {std::size_t{0}, Message::HeaderSize, size - authSize - 1, size - authSize, size - authSize / 2, size - 1}) {
      Connect(level);
      Message message = Protected(*client_, "stub of 16 bytes", true);
      message.bytes.at(place) ^= 1;
      EXPECT_THROW(server_->Unprotect(message.Fragment()), refusal_t) << place;
      EXPECT_FALSE(server_->IsEstablished());
    }
    Connect(level);
    Message first = Protected(*client_, "stub", true);
    Message copy = first;
    server_->Unprotect(first.Fragment());
    EXPECT_THROW(server_->Unprotect(copy.Fragment()), refusal_t);
    Connect(level);
    Protected(*client_, "lost", true);
    Message late = Protected(*client_, "late", true);
    EXPECT_THROW(server_->Unprotect(late.Fragment()), refusal_t);
  }
}

TEST_P(GssKerberosTest, OtherSignaturesAreRefusedWhereEncryptionIsAsked) {
  Connect(auth_level_t::Privacy);
  Message encrypted = Protected(*client_, "stub of 16 bytes", false);
  for (std::size_t size = 0; size < encrypted.signature; ++size) {
    Connect(auth_level_t::Privacy);
    bytes_t pdu(encrypted.bytes.begin(), encrypted.bytes.end() - static_cast<long>(encrypted.signature - size));
    EXPECT_THROW(server_->Unprotect({pdu, Message::HeaderSize, 16, size, false}), refusal_t) << size;
  }
}

TEST_P(GssKerberosTest, NamesOfOtherFormsMapToNoAccount) {
  for (const char* user : {"admin/other", "stranger"}) {
    kdc_->LogIn(user);
    Connect(auth_level_t::Packet);
    EXPECT_EQ(server_->PeerName(), std::string(user) + "@KELVO.TEST");
    EXPECT_EQ(server_->PeerAccount(), "");
  }
}

TEST_P(GssKerberosTest, RefusesDamagedTokens) {
  std::mt19937 random(7);
  const bytes_t first = MakeClient(auth_level_t::Packet)->Step({});
  for (std::size_t length = 0; length < first.size(); length += length < 80 ? 1 : 37) {
    EXPECT_THROW(provider_->Accept(GetParam(), auth_level_t::Packet)->Step(bytes_view_t(first).first(length)),
                 refusal_t)
        << length;
  }
  for (int round = 0; round < 200; ++round) {
    bytes_t token = first;
    token[random() % token.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
    const auto server = provider_->Accept(GetParam(), auth_level_t::Packet);
    try {
      server->Step(token);
    } catch (const refusal_t&) {
    }
    EXPECT_FALSE(server->IsEstablished());
  }
  // The third leg: the client's proof that it took the server's.
  for (const std::size_t cut : {1, 8, 40}) {
    const auto client = MakeClient(auth_level_t::Packet);
    const auto server = provider_->Accept(GetParam(), auth_level_t::Packet);
    bytes_t last = client->Step(server->Step(client->Step({})));
    last.resize(last.size() - cut);
    EXPECT_THROW(server->Step(last), refusal_t);
    EXPECT_FALSE(server->IsEstablished());
  }
}

TEST_P(GssKerberosTest, NothingIsAcceptedTwice) {
  const auto client = MakeClient(auth_level_t::Packet);
  const bytes_t first = client->Step({});
  provider_->Accept(GetParam(), auth_level_t::Packet)->Step(first);
  EXPECT_THROW(provider_->Accept(GetParam(), auth_level_t::Packet)->Step(first), refusal_t);
}

TEST_P(GssKerberosTest, ADifferentTypeOrNoKeyIsRefused) {
  const bytes_t first = MakeClient(auth_level_t::Packet)->Step({});
  EXPECT_THROW(provider_->Accept(auth_type_t::Ntlm, auth_level_t::Packet)->Step(first), refusal_t);
  const auth_type_t other = GetParam() == auth_type_t::Kerberos ? auth_type_t::Negotiate : auth_type_t::Kerberos;
  EXPECT_THROW(provider_->Accept(other, auth_level_t::Packet)->Step(first), refusal_t);
  const test::ScopedEnvironment none("KRB5_KTNAME", *kdc_ / "none.keytab");
  EXPECT_THROW(provider_->Accept(GetParam(), auth_level_t::Packet)->Step(first), refusal_t);
}

TEST_P(GssKerberosTest, AClientWithoutTicketsFailsAtOnce) {
  const test::ScopedEnvironment none("KRB5CCNAME", "FILE:" + (*kdc_ / "no-tickets"));
  EXPECT_THROW(MakeClient(auth_level_t::Packet)->Step({}), refusal_t);
}

INSTANTIATE_TEST_SUITE_P(Types, GssKerberosTest, testing::Values(auth_type_t::Kerberos, auth_type_t::Negotiate));

class GssNegotiateTest : public GssKerberosTest {};

TEST_P(GssNegotiateTest, TakesAFramedTicket) {
  client_ = MakeClient(auth_level_t::Privacy);
  server_ = provider_->Accept(auth_type_t::Negotiate, auth_level_t::Privacy);
  const bytes_t first = client_->Step({});
  const std::optional<dcerpc::SNegTokenInit> init = dcerpc::SNegTokenInit::Decode(first);
  ASSERT_TRUE(init.has_value());
  ASSERT_GT(init->mechToken.size(), 256U);
  const std::size_t size = init->mechToken.size() + 13;
  bytes_t framed{0x60,
                 0x82,
                 static_cast<std::uint8_t>(size >> 8),
                 static_cast<std::uint8_t>(size),
                 0x06,
                 0x09,
                 0x2a,
                 0x86,
                 0x48,
                 0x86,
                 0xf7,
                 0x12,
                 0x01,
                 0x02,
                 0x02,
                 0x01,
                 0x00};
  framed.insert(framed.end(), init->mechToken.begin(), init->mechToken.end());
  bytes_t token = server_->Step(dcerpc::ReplaceMechToken(first, framed));
  while (!token.empty()) {
    token = client_->Step(token);
    if (!token.empty())
      token = server_->Step(token);
  }
  ASSERT_TRUE(server_->IsEstablished());
  ExpectTalk(*client_, *server_, true, true);
}

TEST_P(GssNegotiateTest, NtlmIsNegotiatedBesideKerberos) {
  client_ = std::make_unique<CGssInitiator>(
      SInitiatorSettings{auth_type_t::Negotiate, auth_level_t::Privacy, "server.test", "TEST\\admin", "secret"});
  server_ = provider_->Accept(auth_type_t::Negotiate, auth_level_t::Privacy);
  Handshake().Run(*client_, *server_);
  EXPECT_EQ(server_->PeerName(), "TEST\\admin");
  ExpectTalk(*client_, *server_, true, true);
}

INSTANTIATE_TEST_SUITE_P(Types, GssNegotiateTest, testing::Values(auth_type_t::Negotiate));

class GssStyleTest : public GssKerberosTest {};

TEST_P(GssStyleTest, StyleOfDceIsDemanded) {
  const dcerpc::gss::name_t target = dcerpc::gss::ImportName("host@server.test", GSS_C_NT_HOSTBASED_SERVICE);
  dcerpc::gss::context_t context;
  dcerpc::gss::CBuffer token;
  OM_uint32 minor = 0;
  ASSERT_EQ(gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, context.Out(), target.Get(),
                                 dcerpc::gss::KerberosMechanism(), GSS_C_INTEG_FLAG | GSS_C_SEQUENCE_FLAG, 0,
                                 GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr, token.Out(), nullptr, nullptr),
            GSS_S_COMPLETE);
  EXPECT_THROW(provider_->Accept(GetParam(), auth_level_t::Packet)->Step(token.Bytes()), refusal_t);
}

INSTANTIATE_TEST_SUITE_P(Types, GssStyleTest, testing::Values(auth_type_t::Kerberos));

}  // namespace
