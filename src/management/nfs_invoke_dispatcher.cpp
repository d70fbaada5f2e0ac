#include "management/nfs_invoke_dispatcher.h"

#include <algorithm>

#include "foundation/exc.h"
#include "management/commands.h"
#include "management/input_arguments.h"

namespace {

constexpr SNfsCommand NfsCommands[] = {
    {"EnumLocks", commands::EnumLocks},
    {"GetLogFolder", commands::GetLogFolder},
    {"TestCompatible", commands::TestCompatible},
    {"CreateShare", commands::CreateShare},
    {"LookupShare", commands::LookupShare},
    {"GetShareConfig", commands::GetShareConfig},
    {"DeleteShare", commands::DeleteShare},
    {"MountBackup", commands::MountBackup},
    {"DismountBackup", commands::DismountBackup},
    {"CreateFolder", commands::CreateFolder},
    {"DeleteFolder", commands::DeleteFolder},
    {"GetParams", commands::GetParams},
    {"Reconfigure", commands::Reconfigure},
    {"AddEsxHostAddr", commands::AddEsxHostAddr},
    {"DeleteEsxHostAddr", commands::DeleteEsxHostAddr},
    {"SetNfsDatastoreSize", commands::SetNfsDatastoreSize},
    {"GetNfsDatastoreSize", commands::GetNfsDatastoreSize},
    {"ResetNfsDatastoreSize", commands::ResetNfsDatastoreSize},
};

}  // namespace

std::span<const SNfsCommand> CNfsInvokeDispatcher::Commands() {
  return NfsCommands;
}

void CNfsInvokeDispatcher::Invoke(const std::string& name, const winxml::document_ptr& input,
                                  COutputArguments& output) {
  const auto* const command = std::find_if(std::begin(NfsCommands), std::end(NfsCommands),
                                           [&name](const SNfsCommand& candidate) { return candidate.name == name; });
  if (command == std::end(NfsCommands))
    throw exc::runtime_exc_t("Unknown command: '%1'.", name);
  command->run(CInputArguments(input), output);
}
