// What runs commands by their names.
#pragma once

#include <exception>
#include <string>

#include "management/output_arguments.h"
#include "management/winxml.h"

namespace wrap {

/// Made for one call and used by its thread. All texts are UTF-8.
class IInvokeDispatcher {
 public:
  virtual ~IInvokeDispatcher();

  /// Runs the command. Throws what makes the call fail.
  virtual void Invoke(const std::string& name, const winxml::document_ptr& input, COutputArguments& output) = 0;
  /// Does nothing; no call comes this way.
  virtual void InvokeSerial(winxml::document_ptr input, winxml::document_ptr output);
  /// Writes the call into the log.
  virtual void SoapEnter(const std::string& name, const std::string& input);
  /// Writes the reply into the log.
  virtual void SoapExit(const std::string& name, const std::string& output);
  /// Writes the failure of the call into the log.
  virtual void OnCallFailed(const std::string& name, const std::string& input, const std::exception& failure);
  virtual bool IsSerialInvokerEnabled();
};

}  // namespace wrap
