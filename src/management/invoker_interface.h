// The management interface as callers reach it.
#pragma once

#include <functional>
#include <memory>

#include "management/dcerpc/caller.h"
#include "management/dcerpc/rpc_interface.h"

namespace wrap {
class IInvokeDispatcher;
}

/// Three operations: a command in XML, the same with bytes beside it, which nobody serves and which succeeds without
/// doing anything, and a test of the connection. The last two are open to every caller. Constant after construction;
/// any thread.
class CInvokerInterface : public dcerpc::IRpcInterface {
 public:
  /// Throws what refuses the caller.
  using caller_test_t = std::function<void(const dcerpc::SCaller& caller)>;
  /// Makes the dispatcher of one call.
  using dispatcher_factory_t = std::function<std::unique_ptr<wrap::IInvokeDispatcher>()>;

  /// For administrators of this machine, with the commands of this service.
  CInvokerInterface();
  CInvokerInterface(caller_test_t callerTest, dispatcher_factory_t makeDispatcher);

  const dcerpc::SSyntaxId& Id() const override;
  dcerpc::bytes_t Call(std::uint16_t opnum, dcerpc::bytes_view_t stub, dcerpc::byte_order_t order,
                       const dcerpc::SCaller& caller) override;

 private:
  dcerpc::bytes_t DoRpc(dcerpc::bytes_view_t stub, dcerpc::byte_order_t order, const dcerpc::SCaller& caller) const;

  const caller_test_t callerTest_;
  const dispatcher_factory_t makeDispatcher_;
};
