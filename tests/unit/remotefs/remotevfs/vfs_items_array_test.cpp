#include "remotefs/remotevfs/vfs_items_array.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/exc.h"
#include "support/captured_log.h"
#include "support/fake_mount_agent.h"

namespace {

using remotevfs::ReplyReader;
using remotevfs::VfsItem;
using remotevfs::VfsItemsArray;
using test::Bytes;
using test::WireNumber;
using test::WireString;
using test::operator+;
using testing::ElementsAre;
using testing::IsEmpty;

Bytes Count(std::uint32_t count) {
  return WireNumber(count);
}

Bytes Record(const std::string& name, std::uint32_t kind = 1, std::uint64_t size = 2) {
  return WireNumber(kind) + WireNumber(size) + WireString(name);
}

VfsItemsArray Parse(const Bytes& reply) {
  ReplyReader reader(reply);
  return VfsItemsArray::Parse(reader);
}

std::string Failure(const Bytes& reply) {
  try {
    Parse(reply);
  } catch (const exc::runtime_exc_t& exception) {
    return exception.what();
  }
  return "no exception";
}

std::vector<std::string> Names(const VfsItemsArray& array) {
  std::vector<std::string> names;
  for (const VfsItem& item : array.Items())
    names.push_back(item.name);
  return names;
}

TEST(VfsItemsArrayTest, KeepsWhatTheAgentTells) {
  const VfsItemsArray array = Parse(Count(2) + Record("disk.img", 7, 0x8000000000000001) + Record("Ümläut", 0, 0));
  ASSERT_EQ(array.Size(), 2U);
  EXPECT_EQ(array[0], (VfsItem{7, 0x8000000000000001, "disk.img"}));
  EXPECT_EQ(array[1], (VfsItem{0, 0, "Ümläut"}));
}

TEST(VfsItemsArrayTest, AnEmptyListingIsFourBytes) {
  EXPECT_EQ(Parse(Count(0)).Size(), 0U);
}

TEST(VfsItemsArrayTest, BytesBehindTheLastItemAreNothing) {
  EXPECT_THAT(Names(Parse(Count(1) + Record("a") + Record("b"))), ElementsAre("a"));
}

TEST(VfsItemsArrayTest, AListingCutAnywhereIsRefused) {
  const Bytes whole = Count(3) + Record("a") + Record("") + Record("longer");
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    const Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut));
    EXPECT_EQ(Failure(part), "Invalid data stream") << cut;
  }
}

TEST(VfsItemsArrayTest, ACountThatLiesIsRefusedAndCostsNothing) {
  EXPECT_EQ(Failure(Count(0xFFFFFFFF) + Record("a")), "Invalid data stream");
  EXPECT_EQ(Failure(Count(2) + Record("a")), "Invalid data stream");
}

TEST(VfsItemsArrayTest, ANameThatLiesAboutItsLengthIsRefused) {
  EXPECT_EQ(Failure(Count(1) + WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(0) +
                    WireNumber<std::uint32_t>(0xFFFFFFFF) + test::WireBytes("abc")),
            "Invalid data stream");
}

TEST(VfsItemsArrayTest, ABadNameCostsItsItemAlone) {
  const std::vector<std::string> bad{"",     ".",    "..",       "a/b",          "/",
                                     "a\\b", "../x", "\xC3\x28", "\xED\xA0\x80", std::string("z\0z", 3)};
  Bytes reply = Count(static_cast<std::uint32_t>(bad.size() * 2));
  std::vector<std::string> good;
  for (std::size_t i = 0; i < bad.size(); ++i) {
    good.push_back("good" + std::to_string(i));
    reply = reply + Record(bad[i]) + Record(good.back());
  }
  const test::CapturedLog log;
  EXPECT_EQ(Names(Parse(reply)), good);
  const std::vector<std::string> warnings = log.Texts("Warning");
  ASSERT_EQ(warnings.size(), bad.size());
  EXPECT_THAT(warnings[3],
              testing::EndsWith("An item of the backup is skipped, its name is not that of a file: [a/b]."));
  EXPECT_THAT(warnings[7], testing::HasSubstr("[\\xC3(]"));
  EXPECT_THAT(warnings[9], testing::HasSubstr("[z\\x00z]"));
}

TEST(VfsItemsArrayTest, BadNamesDoNotFillTheLog) {
  Bytes reply = Count(1001);
  for (int i = 0; i < 1000; ++i)
    reply = reply + Record("a/b");
  reply = reply + Record("line\nfeed/" + std::string(5000, 'x'));
  const test::CapturedLog log;
  EXPECT_THAT(Names(Parse(reply)), IsEmpty());
  const std::vector<std::string> warnings = log.Texts("Warning");
  ASSERT_EQ(warnings.size(), 17U);
  EXPECT_THAT(warnings.back(), testing::EndsWith("without a line of their own: [985]."));
}

TEST(VfsItemsArrayTest, ALoggedNameStaysOnItsLine) {
  const test::CapturedLog log;
  Parse(Count(1) + Record("line\nfeed/" + std::string(5000, 'x')));
  const std::vector<std::string> warnings = log.Texts();
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_THAT(warnings[0], testing::HasSubstr("[line\\x0Afeed/xxx"));
  EXPECT_LT(warnings[0].size(), 400U);
}

}  // namespace
