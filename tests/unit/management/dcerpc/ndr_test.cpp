#include "management/dcerpc/ndr.h"

#include <gmock/gmock.h>

#include "unit/management/dcerpc/stub_bytes.h"

using dcerpc::byte_order_t;
using dcerpc::bytes_t;
using dcerpc::CNdrReader;
using dcerpc::CNdrWriter;
using test::FaultOf;
using test::Hex;
using testing::ElementsAre;

namespace {

std::uint32_t FaultOfString(std::string_view hex, byte_order_t order = byte_order_t::Little) {
  const bytes_t stub = Hex(hex);
  return FaultOf([&] { CNdrReader(stub, order).String(); });
}

TEST(NdrReader, ReadsNumbersInBothOrders) {
  const bytes_t stub = Hex("01020304 05060708");
  CNdrReader little(stub, byte_order_t::Little);
  EXPECT_EQ(little.UInt(), 0x04030201U);
  EXPECT_EQ(little.UInt(), 0x08070605U);
  EXPECT_EQ(little.Remaining(), 0U);
  CNdrReader big(stub, byte_order_t::Big);
  EXPECT_EQ(big.UInt(), 0x01020304U);
  EXPECT_EQ(big.UInt(), 0x05060708U);
}

TEST(NdrReader, AlignsAndTakesAnythingAsPadding) {
  const bytes_t stub = Hex("07abcdef 01000000 02");
  CNdrReader reader(stub, byte_order_t::Little);
  EXPECT_EQ(reader.Byte(), 7);
  EXPECT_EQ(reader.UInt(), 1U);
  EXPECT_EQ(reader.Byte(), 2);
}

TEST(NdrReader, PaddingThatIsNotThereIsAFault) {
  const bytes_t stub = Hex("07");
  CNdrReader reader(stub, byte_order_t::Little);
  reader.Byte();
  EXPECT_EQ(reader.Remaining(), 0U);
  EXPECT_EQ(FaultOf([&] { reader.UInt(); }), dcerpc::fault::BadStubData);
  EXPECT_EQ(FaultOf([&] { reader.Byte(); }), dcerpc::fault::BadStubData);
}

TEST(NdrReader, ReadsStringsInBothOrders) {
  const bytes_t little = Hex("03000000 00000000 03000000 6100 ac20 0000");
  EXPECT_EQ(CNdrReader(little, byte_order_t::Little).String(), u"a\u20ac");
  const bytes_t big = Hex("00000003 00000000 00000003 0061 20ac 0000");
  EXPECT_EQ(CNdrReader(big, byte_order_t::Big).String(), u"a\u20ac");
}

TEST(NdrReader, TheEmptyStringIsItsTerminator) {
  const bytes_t stub = Hex("01000000 00000000 01000000 0000");
  EXPECT_EQ(CNdrReader(stub, byte_order_t::Little).String(), u"");
}

TEST(NdrReader, TheCapacityMayExceedWhatIsThere) {
  const bytes_t stub = Hex("ffffffff 00000000 02000000 6100 0000");
  EXPECT_EQ(CNdrReader(stub, byte_order_t::Little).String(), u"a");
}

TEST(NdrReader, AStringEndsAtItsFirstZero) {
  const bytes_t stub = Hex("04000000 00000000 04000000 6100 0000 6200 0000 05000000");
  CNdrReader reader(stub, byte_order_t::Little);
  EXPECT_EQ(reader.String(), u"a");
  EXPECT_EQ(reader.UInt(), 5U);  // Behind all four units.
}

TEST(NdrReader, LyingCountsAreFaults) {
  constexpr std::uint32_t Bad = dcerpc::fault::BadStubData;
  EXPECT_EQ(FaultOfString("02000000 01000000 02000000 6100 0000 0000"), Bad);  // An offset.
  EXPECT_EQ(FaultOfString("02000000 00000000 00000000 6100 0000"), Bad);       // No unit.
  EXPECT_EQ(FaultOfString("01000000 00000000 02000000 6100 0000"), Bad);       // More than the capacity.
  EXPECT_EQ(FaultOfString("03000000 00000000 03000000 6100 0000"), Bad);       // More than is there.
  EXPECT_EQ(FaultOfString("ffffffff 00000000 ffffffff 6100 0000"), Bad);
  EXPECT_EQ(FaultOfString("00000080 00000000 01000080 6100 0000"), Bad);
  EXPECT_EQ(FaultOfString("01000080 00000000 01000080 0000"), Bad);  // Twice the count is 2 in 32 bits.
  EXPECT_EQ(FaultOfString("02000000 00000000 02000000 6100 0000", byte_order_t::Big), Bad);
}

TEST(NdrReader, AMissingTerminatorIsAFault) {
  EXPECT_EQ(FaultOfString("02000000 00000000 02000000 6100 6200"), dcerpc::fault::BadStubData);
  EXPECT_EQ(FaultOfString("02000000 00000000 02000000 6100 0001"), dcerpc::fault::BadStubData);
  EXPECT_EQ(FaultOfString("00000002 00000000 00000002 0061 0100", byte_order_t::Big), dcerpc::fault::BadStubData);
}

TEST(NdrReader, UniqueStrings) {
  const bytes_t null = Hex("00000000");
  EXPECT_EQ(CNdrReader(null, byte_order_t::Little).UniqueString(), std::nullopt);
  const bytes_t one = Hex("01000000 02000000 00000000 02000000 6100 0000");
  EXPECT_EQ(CNdrReader(one, byte_order_t::Little).UniqueString(), u"a");
}

TEST(NdrReader, AnArrayIsAsLongAsItsLengthTells) {
  const bytes_t stub = Hex("03000000 414243");
  const auto array = CNdrReader(stub, byte_order_t::Little).ByteArray(3);
  EXPECT_THAT(bytes_t(array.begin(), array.end()), ElementsAre('A', 'B', 'C'));
  for (const std::uint32_t wrong : {0U, 2U, 4U, 0xFFFFFFFFU})
    EXPECT_EQ(FaultOf([&] { CNdrReader(stub, byte_order_t::Little).ByteArray(wrong); }), dcerpc::fault::BadStubData);
  const bytes_t liar = Hex("ffffffff 414243");
  EXPECT_EQ(FaultOf([&] { CNdrReader(liar, byte_order_t::Little).ByteArray(0xFFFFFFFF); }), dcerpc::fault::BadStubData);
}

TEST(NdrWriter, AlignsWithZeros) {
  CNdrWriter writer;
  writer.Byte(1);
  writer.UInt(0x01020304);
  writer.Pointer(false, 9);
  writer.Pointer(true, 9);
  EXPECT_EQ(writer.Take(), Hex("01000000 04030201 00000000 09000000"));
}

TEST(NdrWriter, WritesStringsAndArrays) {
  CNdrWriter writer;
  writer.String(u"a");
  writer.String(std::u16string_view(u"\u20ac\0b", 3));
  writer.ByteArray(Hex("4142"));
  EXPECT_EQ(writer.Stub(), Hex("02000000 00000000 02000000 6100 0000 02000000 00000000 02000000 ac20 0000"
                               "02000000 4142"));
}

}  // namespace
