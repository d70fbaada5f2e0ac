// The client against the server's association, PDU by PDU and without a transport, and against peers that lie.
#include "management/dcerpc/client.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <deque>
#include <functional>

#include "management/dcerpc/association.h"
#include "management/dcerpc/invoker_client.h"
#include "management/dcerpc/invoker_stubs.h"
#include "support/captured_log.h"
#include "support/failure_text.h"
#include "support/temp_dir.h"
#include "unit/management/dcerpc/security_pair.h"
#include "unit/management/dcerpc/stub_bytes.h"

using dcerpc::auth_level_t;
using dcerpc::auth_type_t;
using dcerpc::byte_order_t;
using dcerpc::bytes_t;
using dcerpc::bytes_view_t;
using dcerpc::CInvokerClient;
using dcerpc::CRpcClient;
using testing::HasSubstr;

namespace {

using test::FailureOf;

constexpr std::uint16_t Echo = 0;
constexpr std::uint16_t Refuse = 7;

/// Echoes stubs, and keeps who called.
class CEchoInterface : public dcerpc::IRpcInterface {
 public:
  const dcerpc::SSyntaxId& Id() const override { return dcerpc::InvokerInterfaceId(); }
  bytes_t Call(std::uint16_t opnum, bytes_view_t stub, byte_order_t, const dcerpc::SCaller& from) override {
    caller = from;
    if (opnum == Refuse)
      throw dcerpc::fault_exc_t("refused", dcerpc::fault::AccessDenied);
    return {stub.begin(), stub.end()};
  }

  dcerpc::SCaller caller;
};

/// Answers DoRpc with its own arguments, and fails when its name is "fail".
class CInvokerStandIn : public dcerpc::IRpcInterface {
 public:
  const dcerpc::SSyntaxId& Id() const override { return dcerpc::InvokerInterfaceId(); }
  bytes_t Call(std::uint16_t opnum, bytes_view_t stub, byte_order_t order, const dcerpc::SCaller&) override {
    if (opnum != 0)
      return dcerpc::EncodeTestConnectionResponse({});
    const dcerpc::SInvokeRequest request = dcerpc::DecodeDoRpcRequest(stub, order);
    if (request.name == u"fail")
      return dcerpc::EncodeDoRpcResponse({{}, {}, {false, "the cause\nthe rest"}});
    std::string text;
    for (const char16_t unit : request.arguments)
      text += static_cast<char>(unit);
    return dcerpc::EncodeDoRpcResponse({text, {}, {}});
  }
};

/// A connection to a server in the same thread: what the client sends is answered before Send returns.
class CLoopStream : public dcerpc::IClientStream {
 public:
  using change_t = std::function<void(bytes_t&)>;

  explicit CLoopStream(const dcerpc::SAssociationSettings& settings, change_t change = {})
      : association_(settings, {}, [this](bytes_view_t pdu) { Take(pdu); }), change_(std::move(change)) {}

  void Send(bytes_view_t bytes) override {
    bytes_t pdu(bytes.begin(), bytes.end());
    isOpen_ = isOpen_ && association_.Receive(pdu);
  }
  void Receive(std::span<std::uint8_t> buffer) override {
    if (buffer.size() > answers_.size())
      throw exc::runtime_exc_t("The service closed the connection.");
    const auto end = answers_.begin() + static_cast<std::ptrdiff_t>(buffer.size());
    std::copy(answers_.begin(), end, buffer.begin());
    answers_.erase(answers_.begin(), end);
  }

 private:
  void Take(bytes_view_t pdu) {
    bytes_t bytes(pdu.begin(), pdu.end());
    if (change_)
      change_(bytes);
    answers_.insert(answers_.end(), bytes.begin(), bytes.end());
  }

  dcerpc::CAssociation association_;
  change_t change_;
  std::deque<std::uint8_t> answers_;
  bool isOpen_ = true;
};

/// Answers that a test wrote.
class CScriptStream : public dcerpc::IClientStream {
 public:
  explicit CScriptStream(bytes_t answers) : answers_(std::move(answers)) {}
  void Send(bytes_view_t) override {}
  void Receive(std::span<std::uint8_t> buffer) override {
    if (buffer.size() > answers_.size() - position_)
      throw exc::runtime_exc_t("The service closed the connection.");
    std::copy_n(answers_.begin() + static_cast<std::ptrdiff_t>(position_), buffer.size(), buffer.begin());
    position_ += buffer.size();
  }

 private:
  const bytes_t answers_;
  std::size_t position_ = 0;
};

class RpcClientTest : public testing::Test {
 protected:
  RpcClientTest() { settings_.interfaces = {echo_}; }
  CRpcClient MakeClient(CLoopStream::change_t change = {}, dcerpc::SClientSecurity security = {}) {
    return {std::make_unique<CLoopStream>(settings_, std::move(change)), echo_->Id(), std::move(security)};
  }

  boost::shared_ptr<CEchoInterface> echo_ = boost::make_shared<CEchoInterface>();
  dcerpc::SAssociationSettings settings_;
};

TEST_F(RpcClientTest, CallsOneAfterTheOther) {
  CRpcClient client = MakeClient();
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{5000}, std::size_t{300000}}) {
    const bytes_t stub(size, 0x5A);
    EXPECT_EQ(client.Call(Echo, stub).bytes, stub);
  }
  EXPECT_FALSE(echo_->caller.authenticated);
}

TEST_F(RpcClientTest, AFaultIsOneOfTheCallAlone) {
  CRpcClient client = MakeClient();
  EXPECT_EQ(test::FaultOf([&] { client.Call(Refuse, {}); }), dcerpc::fault::AccessDenied);
  EXPECT_EQ(client.Call(Echo, bytes_t{1}).bytes, bytes_t{1});
}

TEST_F(RpcClientTest, AnInterfaceThatIsNotThere) {
  dcerpc::SSyntaxId other = echo_->Id();
  other.version = 2;
  EXPECT_THAT(FailureOf([&] { CRpcClient(std::make_unique<CLoopStream>(settings_), other); }),
              HasSubstr("The service does not offer the management interface."));
}

TEST_F(RpcClientTest, AnswersThatEndEarlyAreFailures) {
  // Every answer of the two is cut at every length.
  for (const bool cutsBind : {true, false}) {
    for (std::size_t length = 0; length < 40; ++length) {
      int count = 0;
      const auto cut = [&](bytes_t& pdu) {
        if ((count++ == 0) == cutsBind && length < pdu.size())
          pdu.resize(length);
      };
      EXPECT_NE(FailureOf([&] { MakeClient(cut).Call(Echo, bytes_t(40)); }), "no failure") << length;
    }
  }
}

TEST_F(RpcClientTest, NoChangedByteBringsItDown) {
  for (std::size_t place = 0; place < 64; ++place) {
    for (const unsigned value : {0x00U, 0x01U, 0x7FU, 0xFFU}) {
      const auto change = [&](bytes_t& pdu) {
        if (place < pdu.size())
          pdu[place] = static_cast<std::uint8_t>(value);
      };
      FailureOf([&] { MakeClient(change).Call(Echo, bytes_t(20)); });
    }
  }
}

TEST_F(RpcClientTest, AnswersOfAnotherCallAreRefused) {
  const auto change = [](bytes_t& pdu) { ++pdu[12]; };
  EXPECT_THAT(FailureOf([&] { MakeClient(change); }), HasSubstr("a call that was not made"));
}

TEST_F(RpcClientTest, PartsOutOfOrderAreRefused) {
  int count = 0;
  const auto change = [&](bytes_t& pdu) {
    if (++count > 1)
      pdu[3] |= dcerpc::pdu_flag::First;
  };
  EXPECT_THAT(FailureOf([&] { MakeClient(change).Call(Echo, bytes_t(20000)); }), HasSubstr("out of order"));
}

TEST(RpcClientScript, SaysWhyABindIsRefused) {
  const auto answerTo = [](std::uint16_t reason) {
    dcerpc::SPduHeader header;
    header.type = dcerpc::pdu_type_t::BindNak;
    header.callId = 1;
    return FailureOf([&] {
      CRpcClient(std::make_unique<CScriptStream>(dcerpc::EncodeBindNak(header, {reason, {{5, 0}}})),
                 dcerpc::InvokerInterfaceId());
    });
  };
  EXPECT_THAT(answerTo(8), HasSubstr("refused the authentication"));
  EXPECT_THAT(answerTo(4), HasSubstr("another version"));
  EXPECT_THAT(answerTo(1), HasSubstr("Reason: [1]"));
}

TEST(RpcClientScript, AnotherProtocolIsTold) {
  EXPECT_NE(FailureOf([] {
              CRpcClient(std::make_unique<CScriptStream>(test::Hex("48545450 2f312e31 20343030 20426164 0d0a0d0a")),
                         dcerpc::InvokerInterfaceId());
            }),
            "no failure");
}

TEST(InvokerClient, CallsAndFailures) {
  dcerpc::SAssociationSettings settings;
  settings.interfaces = {boost::make_shared<CInvokerStandIn>()};
  CInvokerClient client(std::make_unique<CLoopStream>(settings));
  client.TestConnection();
  EXPECT_EQ(client.DoRpc("any", "<x/>"), "<x/>");
  const std::string large(100000, 'x');
  EXPECT_EQ(client.DoRpc("any", large), large);
  try {
    client.DoRpc("fail", "");
    FAIL();
  } catch (const dcerpc::call_failed_exc_t& failure) {
    EXPECT_STREQ(failure.what(), "the cause\nthe rest");
  }
  EXPECT_THROW(client.DoRpc("any", "\xFF"), exc::win_sys_exc_t);
  EXPECT_EQ(client.DoRpc("any", "again"), "again");
}

using security_case_t = std::tuple<auth_type_t, auth_level_t>;

class RpcClientSecurityTest : public RpcClientTest, public testing::WithParamInterface<security_case_t> {
 protected:
  RpcClientSecurityTest() {
    test::WriteFile(users_, "TEST:admin:secret\n");
    ::chmod(users_.c_str(), 0600);
    settings_.security = boost::make_shared<dcerpc::CGssProvider>(
        std::make_shared<dcerpc::CAccountMap>(std::make_shared<test::FakeAccounts>()));
  }
  CRpcClient MakeSecureClient(const std::string& password, CLoopStream::change_t change = {}) {
    const auto [type, level] = GetParam();
    return MakeClient(std::move(change),
                      dcerpc::SClientSecurity{std::make_unique<dcerpc::CGssInitiator>(dcerpc::SInitiatorSettings{
                                                  type, level, "vm", "TEST\\admin", password}),
                                              type, level});
  }

  test::TempDir folder_;
  const std::string users_ = folder_ / "users";
  test::ScopedEnvironment userFile_{"NTLM_USER_FILE", users_};
  test::ScopedEnvironment keytab_{"KRB5_KTNAME", folder_ / "none.keytab"};
};

TEST_P(RpcClientSecurityTest, ProvesWhoItIs) {
  CRpcClient client = MakeSecureClient("secret");
  for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{30000}}) {
    const bytes_t stub(size, 0x42);
    EXPECT_EQ(client.Call(Echo, stub).bytes, stub);
  }
  EXPECT_TRUE(echo_->caller.authenticated);
  EXPECT_EQ(echo_->caller.account, "admin");
  EXPECT_EQ(echo_->caller.level, std::get<1>(GetParam()));
  EXPECT_EQ(test::FaultOf([&] { client.Call(Refuse, {}); }), dcerpc::fault::AccessDenied);
  EXPECT_EQ(client.Call(Echo, bytes_t{1}).bytes, bytes_t{1});
}

TEST_P(RpcClientSecurityTest, AWrongPasswordIsTold) {
  EXPECT_THAT(FailureOf([&] { MakeSecureClient("wrong").Call(Echo, {}); }), HasSubstr("the password is wrong"));
  EXPECT_EQ(echo_->caller.account, "");
}

TEST_P(RpcClientSecurityTest, ChangedAnswersAreFound) {
  constexpr std::size_t FirstOfStub = 24;
  const auto change = [](bytes_t& pdu) {
    if (pdu[2] == static_cast<std::uint8_t>(dcerpc::pdu_type_t::Response))
      pdu[FirstOfStub] = static_cast<std::uint8_t>(pdu[FirstOfStub] ^ 1);
  };
  CRpcClient client = MakeSecureClient("secret", change);
  if (std::get<1>(GetParam()) < auth_level_t::Packet) {
    // Nothing protects an answer at this level: it arrives as it was changed.
    EXPECT_EQ(client.Call(Echo, bytes_t(2)).bytes, (bytes_t{1, 0}));
  } else {
    EXPECT_THAT(FailureOf([&] { client.Call(Echo, bytes_t(16)); }), HasSubstr("changed on its way"));
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, RpcClientSecurityTest,
                         testing::Combine(testing::Values(auth_type_t::Ntlm, auth_type_t::Negotiate),
                                          testing::Values(auth_level_t::Connect, auth_level_t::Packet,
                                                          auth_level_t::Integrity, auth_level_t::Privacy)));

}  // namespace
