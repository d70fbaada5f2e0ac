#include "management/invoker_interface.h"

#include <utility>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "management/caller_test.h"
#include "management/dcerpc/invoker_stubs.h"
#include "management/invoke_call.h"
#include "management/nfs_invoke_dispatcher.h"

CInvokerInterface::CInvokerInterface()
    : CInvokerInterface([](const dcerpc::SCaller& caller) { security::CheckCaller(caller, security::LocalAccounts()); },
                        [] { return std::make_unique<CNfsInvokeDispatcher>(); }) {}

CInvokerInterface::CInvokerInterface(caller_test_t callerTest, dispatcher_factory_t makeDispatcher)
    : callerTest_(std::move(callerTest)), makeDispatcher_(std::move(makeDispatcher)) {}

const dcerpc::SSyntaxId& CInvokerInterface::Id() const {
  return dcerpc::InvokerInterfaceId();
}

dcerpc::bytes_t CInvokerInterface::Call(std::uint16_t opnum, dcerpc::bytes_view_t stub, dcerpc::byte_order_t order,
                                        const dcerpc::SCaller& caller) {
  switch (static_cast<dcerpc::invoker_op_t>(opnum)) {
    case dcerpc::invoker_op_t::DoRpc:
      return DoRpc(stub, order, caller);
    case dcerpc::invoker_op_t::DoRpcWithBinary:
      dcerpc::DecodeDoRpcWithBinaryRequest(stub, order);
      return dcerpc::EncodeDoRpcWithBinaryResponse({});
    case dcerpc::invoker_op_t::InvokerTestConnection:
      dcerpc::DecodeTestConnectionRequest(stub, order);
      return dcerpc::EncodeTestConnectionResponse({});
  }
  throw dcerpc::fault_exc_t(exc::FormatText("Operation %1 is not part of the interface.", opnum),
                            dcerpc::fault::OperationRange);
}

dcerpc::bytes_t CInvokerInterface::DoRpc(dcerpc::bytes_view_t stub, dcerpc::byte_order_t order,
                                         const dcerpc::SCaller& caller) const {
  const dcerpc::SInvokeRequest request = dcerpc::DecodeDoRpcRequest(stub, order);
  dcerpc::SInvokeResponse response;
  try {
    const std::unique_ptr<wrap::IInvokeDispatcher> dispatcher = makeDispatcher_();
    response = InvokeCall(
        *dispatcher, [&] { callerTest_(caller); }, request.name, request.arguments);
  } catch (const std::exception& failure) {
    g_rpc_log.Error("RPC: DoRpc function call failed.", failure);
    response.result = FailedResult(failure);
  }
  return dcerpc::EncodeDoRpcResponse(response);
}
