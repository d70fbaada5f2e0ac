#include "management/dcerpc/spnego_token.h"

#include <gtest/gtest.h>

namespace {

using dcerpc::bytes_t;
using dcerpc::bytes_view_t;
using dcerpc::ReplaceMechToken;
using dcerpc::SNegTokenInit;
using dcerpc::UnframedApReq;

bytes_t MakeElement(std::uint8_t tag, const bytes_t& content) {
  bytes_t element{tag, static_cast<std::uint8_t>(content.size())};
  element.insert(element.end(), content.begin(), content.end());
  return element;
}

bytes_t Join(std::initializer_list<bytes_t> parts) {
  bytes_t all;
  for (const bytes_t& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

const bytes_t Kerberos{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02};
const bytes_t Ntlm{0x2b, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x02, 0x02, 0x0a};
const bytes_t Spnego{0x2b, 0x06, 0x01, 0x05, 0x05, 0x02};

/// Offers Kerberos and NTLM, with flags, the token and a mechListMIC.
bytes_t MakeInit(const bytes_t& token) {
  const bytes_t mechanisms =
      MakeElement(0xa0, MakeElement(0x30, Join({MakeElement(0x06, Kerberos), MakeElement(0x06, Ntlm)})));
  const bytes_t flags = MakeElement(0xa1, {0x03, 0x02, 0x01, 0x06});
  const bytes_t mic = MakeElement(0xa3, MakeElement(0x04, {0x77}));
  const bytes_t fields = Join({mechanisms, flags, MakeElement(0xa2, MakeElement(0x04, token)), mic});
  return MakeElement(0x60, Join({MakeElement(0x06, Spnego), MakeElement(0xa0, MakeElement(0x30, fields))}));
}

TEST(SpnegoTokenTest, ReadsWhatIsOffered) {
  const std::optional<SNegTokenInit> init = SNegTokenInit::Decode(MakeInit({1, 2, 3}));
  ASSERT_TRUE(init.has_value());
  EXPECT_EQ(init->mechanisms, (std::vector<bytes_t>{Kerberos, Ntlm}));
  EXPECT_EQ(init->mechToken, (bytes_t{1, 2, 3}));
}

TEST(SpnegoTokenTest, RefusesATokenCutAnywhereOrWithMoreBehindIt) {
  bytes_t token = MakeInit({1, 2, 3});
  for (std::size_t length = 0; length < token.size(); ++length) {
    const bytes_view_t cut = bytes_view_t(token).first(length);
    EXPECT_FALSE(SNegTokenInit::Decode(cut).has_value()) << length;
    EXPECT_EQ(ReplaceMechToken(cut, bytes_t{9}), bytes_t(cut.begin(), cut.end()));
  }
  token.push_back(0);
  EXPECT_FALSE(SNegTokenInit::Decode(token).has_value());
}

TEST(SpnegoTokenTest, NoChangedByteReadsPastTheEnd) {
  const bytes_t token = MakeInit({1, 2, 3});
  for (std::size_t place = 0; place < token.size(); ++place) {
    for (const int value : {0, 0x7f, 0x80, 0x81, 0x84, 0x88, 0xff}) {
      bytes_t changed = token;
      changed[place] = static_cast<std::uint8_t>(value);
      const std::optional<SNegTokenInit> init = SNegTokenInit::Decode(changed);
      EXPECT_LE(init.value_or(SNegTokenInit()).mechToken.size(), changed.size());
      UnframedApReq(changed);
    }
  }
}

TEST(SpnegoTokenTest, ReplacesTheTokenAlone) {
  EXPECT_EQ(ReplaceMechToken(MakeInit({1, 2, 3}), bytes_t{4, 5, 6, 7, 8}), MakeInit({4, 5, 6, 7, 8}));
  for (const std::size_t size : {127, 128, 255, 256, 65535, 65536, 100000}) {
    const bytes_t large(size, 0x55);
    const bytes_t token = ReplaceMechToken(MakeInit({1}), large);
    const std::optional<SNegTokenInit> init = SNegTokenInit::Decode(token);
    ASSERT_TRUE(init.has_value()) << size;
    EXPECT_EQ(init->mechToken, large);
    EXPECT_EQ(ReplaceMechToken(token, bytes_t{1}), MakeInit({1}));
  }
  const bytes_t other{1, 2, 3};
  EXPECT_EQ(ReplaceMechToken(other, bytes_t{4}), other);
}

TEST(SpnegoTokenTest, TakesTheFramingOffAnApReqAlone) {
  const auto frame = [](const bytes_t& oid, std::uint8_t mark) {
    return MakeElement(0x60, Join({MakeElement(0x06, oid), {mark, 0x00}, {0x6e, 0x01, 0x55}}));
  };
  const bytes_t framed = frame(Kerberos, 0x01);
  const bytes_view_t bare = UnframedApReq(framed);
  EXPECT_EQ(bytes_t(bare.begin(), bare.end()), (bytes_t{0x6e, 0x01, 0x55}));
  for (const bytes_t& other : {frame(Kerberos, 0x02), frame(Ntlm, 0x01), bytes_t{0x6e, 0x01, 0x55}, bytes_t{}}) {
    const bytes_view_t same = UnframedApReq(other);
    EXPECT_EQ(bytes_t(same.begin(), same.end()), other);
  }
  for (std::size_t length = 0; length < framed.size(); ++length)
    EXPECT_EQ(UnframedApReq(bytes_view_t(framed).first(length)).size(), length);
}

}  // namespace
