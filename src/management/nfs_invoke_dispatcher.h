// The commands of the management interface by their names.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "management/invoke_dispatcher.h"

class CInputArguments;

/// A command: reads its arguments, does its work on the running service, writes its results. Throws when it fails.
struct SNfsCommand {
  std::string_view name;
  void (*run)(const CInputArguments& input, COutputArguments& output);
};

/// Holds nothing: commands fetch what they need from the service's context.
class CNfsInvokeDispatcher : public wrap::IInvokeDispatcher {
 public:
  /// In the order in which they are compared with a name.
  static std::span<const SNfsCommand> Commands();

  /// Names are compared exactly.
  void Invoke(const std::string& name, const winxml::document_ptr& input, COutputArguments& output) override;
};
