// One command from the wire, from its texts to its answer.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "management/dcerpc/invoker_stubs.h"

namespace wrap {
class IInvokeDispatcher;
}

/// Answered by the call itself and never seen by a dispatcher.
inline constexpr char SerialInvokerQuestion[] = "IInvokeDispatcher.IsSerialInvokerEnabled";

/// Runs the command in the dispatcher once `checkCaller` returned; what that throws refuses the call before anything
/// else of it is looked at. Every std::exception ends as a failed result with its text; the output is there on success
/// alone. Throws only what the dispatcher's OnCallFailed throws. The name and the arguments are UTF-16.
dcerpc::SInvokeResponse InvokeCall(wrap::IInvokeDispatcher& dispatcher, const std::function<void()>& checkCaller,
                                   const std::optional<std::u16string>& name,
                                   const std::optional<std::u16string>& arguments);

/// The result of a call that failed so.
dcerpc::SRpcResult FailedResult(const std::exception& failure);
