#include "management/invoke_call.h"

#include "foundation/exc.h"
#include "management/dcerpc/wide_text.h"
#include "management/invoke_dispatcher.h"
#include "management/output_arguments.h"
#include "management/winxml.h"

namespace {

std::string Run(wrap::IInvokeDispatcher& dispatcher, const std::string& name, const std::string& input) {
  dispatcher.SoapEnter(name, input);
  const winxml::document_ptr document = winxml::ParseDocument(input);
  COutputArguments output;
  if (name == SerialInvokerQuestion) {
    output.SetBool("IsEnabled", dispatcher.IsSerialInvokerEnabled());
  } else {
    dispatcher.Invoke(name, document, output);
  }
  std::string text = winxml::PrintDocument(output.Document());
  dispatcher.SoapExit(name, text);
  return text;
}

}  // namespace

dcerpc::SInvokeResponse InvokeCall(wrap::IInvokeDispatcher& dispatcher, const std::function<void()>& checkCaller,
                                   const std::optional<std::u16string>& name,
                                   const std::optional<std::u16string>& arguments) {
  std::string command;
  std::string input;
  dcerpc::SInvokeResponse response;
  try {
    checkCaller();
    if (!name)
      throw exc::runtime_exc_t("Procedure name is not specified.");
    if (!arguments)
      throw exc::runtime_exc_t("Input arguments is not specified.");
    command = dcerpc::NarrowText(*name);
    input = dcerpc::NarrowText(*arguments);
    response.output = Run(dispatcher, command, input);
  } catch (const std::exception& failure) {
    dispatcher.OnCallFailed(command, input, failure);
    response.result = FailedResult(failure);
  }
  return response;
}

dcerpc::SRpcResult FailedResult(const std::exception& failure) {
  const char* const text = failure.what();
  return {.success = false, .message = text == nullptr ? std::string() : std::string(text)};
}
