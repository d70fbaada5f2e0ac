#include "management/dcerpc/invoker_stubs.h"

#include <utility>

#include "management/dcerpc/wide_text.h"

namespace dcerpc {
namespace {

/// Any number but 0 does for a pointer; one for each place keeps a response the same whatever its other parts are.
namespace referent {
constexpr std::uint32_t First = 0x20000;
constexpr std::uint32_t Output = First;
constexpr std::uint32_t Data = First + 4;
constexpr std::uint32_t Message = First + 8;
}  // namespace referent

std::optional<std::string> NarrowIfPresent(const std::optional<std::u16string>& text) {
  return text ? std::optional(NarrowText(*text)) : std::nullopt;
}

void WriteOutput(CNdrWriter& writer, const std::optional<std::string>& output) {
  writer.Pointer(output.has_value(), referent::Output);
  if (output)
    writer.String(WideText(*output));
}

/// A structure: what its pointers point at stands behind it.
void WriteResult(CNdrWriter& writer, const SRpcResult& result, std::uint32_t messageId) {
  writer.Align(4);
  writer.Byte(result.success ? 1 : 0);
  writer.Pointer(result.message.has_value(), messageId);
  if (result.message)
    writer.String(WideTextOrReplaced(*result.message));
}

SRpcResult ReadResult(CNdrReader& reader) {
  SRpcResult result;
  reader.Align(4);
  result.success = reader.Byte() != 0;
  result.message = NarrowIfPresent(reader.UniqueString());
  return result;
}

void ReadTexts(CNdrReader& reader, SInvokeRequest& request) {
  request.name = reader.String();
  request.arguments = reader.String();
}

void WriteTexts(CNdrWriter& writer, const SInvokeRequest& request) {
  writer.String(request.name);
  writer.String(request.arguments);
}

}  // namespace

const SSyntaxId& InvokerInterfaceId() {
  static const SSyntaxId id{*platform::GuidFromText("{d1c2c07a-d989-48cc-a423-b73ecd518d40}"), 1};
  return id;
}

SInvokeRequest DecodeDoRpcRequest(bytes_view_t stub, byte_order_t order) {
  CNdrReader reader(stub, order);
  SInvokeRequest request;
  ReadTexts(reader, request);
  return request;
}

bytes_t EncodeDoRpcRequest(const SInvokeRequest& request) {
  CNdrWriter writer;
  WriteTexts(writer, request);
  return writer.Take();
}

SInvokeRequest DecodeDoRpcWithBinaryRequest(bytes_view_t stub, byte_order_t order) {
  CNdrReader reader(stub, order);
  SInvokeRequest request;
  ReadTexts(reader, request);
  const bytes_view_t data = reader.ByteArray(reader.UInt());
  request.data.assign(data.begin(), data.end());
  return request;
}

bytes_t EncodeDoRpcWithBinaryRequest(const SInvokeRequest& request) {
  CNdrWriter writer;
  WriteTexts(writer, request);
  writer.Length(request.data.size());
  writer.ByteArray(request.data);
  return writer.Take();
}

std::u16string DecodeTestConnectionRequest(bytes_view_t stub, byte_order_t order) {
  return CNdrReader(stub, order).String();
}

bytes_t EncodeTestConnectionRequest(std::u16string_view text) {
  CNdrWriter writer;
  writer.String(text);
  return writer.Take();
}

SInvokeResponse DecodeDoRpcResponse(bytes_view_t stub, byte_order_t order) {
  CNdrReader reader(stub, order);
  SInvokeResponse response;
  response.output = NarrowIfPresent(reader.UniqueString());
  response.result = ReadResult(reader);
  return response;
}

bytes_t EncodeDoRpcResponse(const SInvokeResponse& response) {
  CNdrWriter writer;
  WriteOutput(writer, response.output);
  WriteResult(writer, response.result, referent::Message);
  return writer.Take();
}

SInvokeResponse DecodeDoRpcWithBinaryResponse(bytes_view_t stub, byte_order_t order) {
  CNdrReader reader(stub, order);
  SInvokeResponse response;
  response.output = NarrowIfPresent(reader.UniqueString());
  const std::uint32_t size = reader.UInt();
  if (reader.IsPresent()) {
    const bytes_view_t data = reader.ByteArray(size);
    response.data.emplace(data.begin(), data.end());
  }
  response.result = ReadResult(reader);
  return response;
}

bytes_t EncodeDoRpcWithBinaryResponse(const SInvokeResponse& response) {
  CNdrWriter writer;
  WriteOutput(writer, response.output);
  writer.Length(response.data ? response.data->size() : 0);
  writer.Pointer(response.data.has_value(), referent::Data);
  if (response.data)
    writer.ByteArray(*response.data);
  WriteResult(writer, response.result, referent::Message);
  return writer.Take();
}

SRpcResult DecodeTestConnectionResponse(bytes_view_t stub, byte_order_t order) {
  CNdrReader reader(stub, order);
  return ReadResult(reader);
}

bytes_t EncodeTestConnectionResponse(const SRpcResult& result) {
  CNdrWriter writer;
  WriteResult(writer, result, referent::First);
  return writer.Take();
}

}  // namespace dcerpc
