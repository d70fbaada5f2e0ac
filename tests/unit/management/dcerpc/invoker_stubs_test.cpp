#include "management/dcerpc/invoker_stubs.h"

#include <gmock/gmock.h>

#include <functional>

#include "unit/management/dcerpc/stub_bytes.h"

using dcerpc::byte_order_t;
using dcerpc::bytes_t;
using dcerpc::bytes_view_t;
using dcerpc::SInvokeRequest;
using dcerpc::SInvokeResponse;
using dcerpc::SRpcResult;
using test::FaultOf;
using test::Hex;
using testing::HasSubstr;

namespace {

constexpr byte_order_t Little = byte_order_t::Little;
constexpr byte_order_t Big = byte_order_t::Big;

const char* const AbC = "03000000 00000000 03000000 6100 6200 0000 0000 02000000 00000000 02000000 6300 0000";

/// Every part of a stub that is cut short is a fault, and the whole one is not.
void ExpectFaultAtEveryCut(const bytes_t& stub, const std::function<void(bytes_view_t)>& decode) {
  for (std::size_t size = 0; size < stub.size(); ++size) {
    const bytes_t part(stub.begin(), stub.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(FaultOf([&] { decode(part); }), dcerpc::fault::BadStubData) << size;
  }
  EXPECT_EQ(FaultOf([&] { decode(stub); }), 0U);
}

TEST(InvokerStubs, InterfaceAsClientsNameIt) {
  EXPECT_EQ(platform::GuidToText(dcerpc::InvokerInterfaceId().uuid), "{d1c2c07a-d989-48cc-a423-b73ecd518d40}");
  EXPECT_EQ(dcerpc::InvokerInterfaceId().version, 1U);
}

TEST(InvokerStubs, DoRpcRequest) {
  const SInvokeRequest request{u"ab", u"c", {}};
  EXPECT_EQ(dcerpc::EncodeDoRpcRequest(request), Hex(AbC));
  EXPECT_EQ(dcerpc::DecodeDoRpcRequest(Hex(AbC), Little), request);
  EXPECT_EQ(dcerpc::DecodeDoRpcRequest(Hex("00000003 00000000 00000003 0061 0062 0000 abbf"
                                           "00000002 00000000 00000002 0063 0000"),
                                       Big),
            request);
  ExpectFaultAtEveryCut(Hex(AbC), [](bytes_view_t stub) { dcerpc::DecodeDoRpcRequest(stub, Little); });
}

TEST(InvokerStubs, BytesAfterTheLastParameterAreLeftAlone) {
  EXPECT_EQ(dcerpc::DecodeDoRpcRequest(Hex(std::string(AbC) + "abababab 00"), Little),
            (SInvokeRequest{u"ab", u"c", {}}));
}

TEST(InvokerStubs, ATextThatIsNoUtf16ReachesTheCall) {
  const bytes_t stub = Hex("02000000 00000000 02000000 00d8 0000 02000000 00000000 02000000 6300 0000");
  EXPECT_EQ(dcerpc::DecodeDoRpcRequest(stub, Little).name, std::u16string(1, u'\xD800'));
}

TEST(InvokerStubs, DoRpcResponse) {
  const SInvokeResponse response{"hi", {}, {true, "ok"}};
  const bytes_t stub =
      Hex("00000200 03000000 00000000 03000000 6800 6900 0000 0000 01000000"
          "08000200 03000000 00000000 03000000 6f00 6b00 0000");
  EXPECT_EQ(stub.size(), 50U);
  EXPECT_EQ(dcerpc::EncodeDoRpcResponse(response), stub);
  EXPECT_EQ(dcerpc::DecodeDoRpcResponse(stub, Little), response);
  EXPECT_EQ(dcerpc::DecodeDoRpcResponse(Hex("00020000 00000003 00000000 00000003 0068 0069 0000 ffff 01ffffff"
                                            "00020008 00000003 00000000 00000003 006f 006b 0000"),
                                        Big),
            response);
  ExpectFaultAtEveryCut(stub, [](bytes_view_t part) { dcerpc::DecodeDoRpcResponse(part, Little); });
}

TEST(InvokerStubs, DoRpcResponseWithNothing) {
  const SInvokeResponse response{{}, {}, {false, {}}};
  const bytes_t stub = Hex("00000000 00000000 00000000");
  EXPECT_EQ(dcerpc::EncodeDoRpcResponse(response), stub);
  EXPECT_EQ(dcerpc::DecodeDoRpcResponse(stub, Little), response);
}

TEST(InvokerStubs, EmptyTextsAreNotNull) {
  const SInvokeResponse response{"", {}, {false, ""}};
  const bytes_t stub = dcerpc::EncodeDoRpcResponse(response);
  EXPECT_EQ(stub,
            Hex("00000200 01000000 00000000 01000000 0000 0000 00000000 08000200 01000000 00000000 01000000 0000"));
  EXPECT_EQ(dcerpc::DecodeDoRpcResponse(stub, Little), response);
}

TEST(InvokerStubs, AnOutputThatIsNoUtf8FailsAndAMessageDoesNot) {
  EXPECT_THROW(dcerpc::EncodeDoRpcResponse({"\xFF", {}, {}}), exc::win_sys_exc_t);
  const bytes_t stub = dcerpc::EncodeDoRpcResponse({{}, {}, {false, "a\xFF"}});
  EXPECT_EQ(dcerpc::DecodeDoRpcResponse(stub, Little).result.message, "a\xEF\xBF\xBD");
}

TEST(InvokerStubs, AResponseThatIsNoUtf16IsToldByTheClient) {
  const bytes_t stub = Hex("00000200 02000000 00000000 02000000 00dc 0000 00000000 00000000");
  EXPECT_THROW(dcerpc::DecodeDoRpcResponse(stub, Little), exc::win_sys_exc_t);
}

TEST(InvokerStubs, DoRpcWithBinaryRequest) {
  const SInvokeRequest request{u"ab", u"c", Hex("414243")};
  const bytes_t stub = Hex(std::string(AbC) + "03000000 03000000 414243");
  EXPECT_EQ(dcerpc::EncodeDoRpcWithBinaryRequest(request), stub);
  EXPECT_EQ(dcerpc::DecodeDoRpcWithBinaryRequest(stub, Little), request);
  ExpectFaultAtEveryCut(stub, [](bytes_view_t part) { dcerpc::DecodeDoRpcWithBinaryRequest(part, Little); });
}

TEST(InvokerStubs, DoRpcWithBinaryRequestInTheOtherOrder) {
  const bytes_t stub =
      Hex("00000001 00000000 00000001 0000 abab 00000002 00000000 00000002 0063 0000"
          "00000003 00000003 414243");
  EXPECT_EQ(dcerpc::DecodeDoRpcWithBinaryRequest(stub, Big), (SInvokeRequest{u"", u"c", Hex("414243")}));
}

TEST(InvokerStubs, ALengthThatIsNotTheArraysIsAFault) {
  for (const char* const tail : {"04000000 03000000 41424344", "03000000 04000000 41424344", "00000000 ffffffff 41",
                                 "ffffffff ffffffff 41", "ffffffff 00000000"})
    EXPECT_EQ(FaultOf([&] { dcerpc::DecodeDoRpcWithBinaryRequest(Hex(std::string(AbC) + tail), Little); }),
              dcerpc::fault::BadStubData)
        << tail;
}

TEST(InvokerStubs, DoRpcWithBinaryResponse) {
  const SInvokeResponse response{"h", Hex("4142434445"), {true, "ok"}};
  const bytes_t stub =
      Hex("00000200 02000000 00000000 02000000 6800 0000 05000000 04000200 05000000 4142434445 000000"
          "01000000 08000200 03000000 00000000 03000000 6f00 6b00 0000");
  EXPECT_EQ(dcerpc::EncodeDoRpcWithBinaryResponse(response), stub);
  EXPECT_EQ(dcerpc::DecodeDoRpcWithBinaryResponse(stub, Little), response);
  ExpectFaultAtEveryCut(stub, [](bytes_view_t part) { dcerpc::DecodeDoRpcWithBinaryResponse(part, Little); });
}

TEST(InvokerStubs, DoRpcWithBinaryResponseWithNothing) {
  const SInvokeResponse response;
  const bytes_t stub = Hex("00000000 00000000 00000000 01000000 00000000");
  EXPECT_EQ(dcerpc::EncodeDoRpcWithBinaryResponse(response), stub);
  EXPECT_EQ(dcerpc::DecodeDoRpcWithBinaryResponse(stub, Little), response);
}

TEST(InvokerStubs, TestConnection) {
  const bytes_t request = Hex("03000000 00000000 03000000 6800 6900 0000");
  EXPECT_EQ(dcerpc::EncodeTestConnectionRequest(u"hi"), request);
  EXPECT_EQ(dcerpc::DecodeTestConnectionRequest(request, Little), u"hi");
  ExpectFaultAtEveryCut(request, [](bytes_view_t part) { dcerpc::DecodeTestConnectionRequest(part, Little); });

  const SRpcResult result{true, "ok"};
  const bytes_t response = Hex("01000000 00000200 03000000 00000000 03000000 6f00 6b00 0000");
  EXPECT_EQ(dcerpc::EncodeTestConnectionResponse(result), response);
  EXPECT_EQ(dcerpc::DecodeTestConnectionResponse(response, Little), result);
  EXPECT_EQ(dcerpc::DecodeTestConnectionResponse(Hex("ff abcdef 00000000"), Big), (SRpcResult{true, {}}));
  ExpectFaultAtEveryCut(response, [](bytes_view_t part) { dcerpc::DecodeTestConnectionResponse(part, Little); });
}

}  // namespace
