// What all commands have in common.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "management/argument_names.h"
#include "management/input_arguments.h"

namespace commands {

/// For commands whose exceptions pass as they are.
inline constexpr std::string_view NoFailureText;

/// Runs the work in a scope of the log; its failure is chained under the text.
template <typename Work>
void RunCommand(std::string scopeText, std::string_view failureText, const Work& work) {
  logging::log_scope_t scope(g_nfs_log, std::move(scopeText));
  try {
    work();
    scope.Success();
  } catch (const std::exception& failure) {
    if (failureText.empty())
      throw;
    exc::ChainAndThrow(failureText, failure);
  }
}

/// The list of addresses that may use an item; empty without the argument.
inline std::string GetAllowedHostAddr(const CInputArguments& input) {
  const std::string name = argument_names::AllowedHostAddr();
  return input.HasArgument(name) ? input.GetMultibyte(name) : std::string();
}

}  // namespace commands
