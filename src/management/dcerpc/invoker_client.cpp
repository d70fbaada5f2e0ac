#include "management/dcerpc/invoker_client.h"

#include "management/dcerpc/invoker_stubs.h"
#include "management/dcerpc/wide_text.h"

namespace dcerpc {
namespace {

void CheckResult(const SRpcResult& result) {
  if (!result.success)
    throw call_failed_exc_t(result.message.value_or(std::string()));
}

constexpr std::uint16_t Opnum(invoker_op_t operation) {
  return static_cast<std::uint16_t>(operation);
}

}  // namespace

const SSyntaxId& CInvokerClient::InterfaceId() {
  return InvokerInterfaceId();
}

std::string CInvokerClient::DoRpc(std::string_view name, std::string_view arguments) {
  const bytes_t request = EncodeDoRpcRequest({WideText(name), WideText(arguments), {}});
  const SStub answer = client_.Call(Opnum(invoker_op_t::DoRpc), request);
  const SInvokeResponse response = DecodeDoRpcResponse(answer.bytes, answer.order);
  CheckResult(response.result);
  return response.output.value_or(std::string());
}

void CInvokerClient::TestConnection() {
  const SStub answer = client_.Call(Opnum(invoker_op_t::InvokerTestConnection), EncodeTestConnectionRequest(u""));
  CheckResult(DecodeTestConnectionResponse(answer.bytes, answer.order));
}

}  // namespace dcerpc
