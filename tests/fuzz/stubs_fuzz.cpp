// The stubs of the three management operations, as server and client decode them, in both orders of integers.
#include "fuzz/fuzz_input.h"
#include "management/dcerpc/invoker_stubs.h"

namespace {

using dcerpc::byte_order_t;
using dcerpc::bytes_t;

/// What was decoded is the same once it was encoded and decoded again.
template <typename Decode, typename Encode>
void Check(const bytes_t& stub, byte_order_t order, const Decode& decode, const Encode& encode) {
  fuzz::Try([&] {
    const auto decoded = decode(stub, order);
    const bytes_t encoded = encode(decoded);
    fuzz::Require(decode(encoded, byte_order_t::Little) == decoded, "a record survives encoding and decoding");
  });
}

void DecodeAs(std::uint8_t operation, const bytes_t& stub, byte_order_t order) {
  switch (operation) {
    case 0:
      return Check(stub, order, dcerpc::DecodeDoRpcRequest, dcerpc::EncodeDoRpcRequest);
    case 1:
      return Check(stub, order, dcerpc::DecodeDoRpcWithBinaryRequest, dcerpc::EncodeDoRpcWithBinaryRequest);
    case 2:
      return Check(stub, order, dcerpc::DecodeTestConnectionRequest, dcerpc::EncodeTestConnectionRequest);
    case 3:
      return Check(stub, order, dcerpc::DecodeDoRpcResponse, dcerpc::EncodeDoRpcResponse);
    case 4:
      return Check(stub, order, dcerpc::DecodeDoRpcWithBinaryResponse, dcerpc::EncodeDoRpcWithBinaryResponse);
    default:
      return Check(stub, order, dcerpc::DecodeTestConnectionResponse, dcerpc::EncodeTestConnectionResponse);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::uint8_t Operations = 6;
  constexpr std::uint8_t BigEndian = 0x80;
  fuzz::CInput input(data, size);
  const std::uint8_t selector = input.Byte();
  const dcerpc::bytes_view_t rest = input.Rest();
  // The exact bytes in a block of their own, so that what is read past their end is seen.
  const bytes_t stub(rest.begin(), rest.end());
  DecodeAs(selector % Operations, stub, (selector & BigEndian) != 0 ? byte_order_t::Big : byte_order_t::Little);
  return 0;
}
