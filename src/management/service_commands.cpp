// The service as a whole: locks, log, version, settings.
#include <filesystem>

#include "config/nfs_params.h"
#include "foundation/command_line.h"
#include "foundation/log_setup.h"
#include "management/command_frame.h"
#include "management/commands.h"
#include "management/output_arguments.h"
#include "management/version_compatibility.h"
#include "platform/process.h"
#include "platform/text.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace commands {

namespace {

CCommandLine ProcessCommandLine() {
  return CCommandLine(platform::ProcessArguments());
}

void WriteLocks(const std::set<service_lock_t>& locks, const winxml::element_ptr& list) {
  try {
    for (const auto& [console, job] : locks) {
      const winxml::element_ptr item = winxml::CreateElement(list, "item");
      winxml::SetAttribute(item, "BackupConsole", console);
      winxml::SetAttribute(item, "JobName", job);
    }
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to serialize list of jobs.", failure);
  }
}

}  // namespace

void EnumLocks(const CInputArguments&, COutputArguments& output) {
  RunCommand("RPC: EnumLocks", NoFailureText, [&] {
    const winxml::element_ptr list = output.AddNode(argument_names::Locks());
    WriteLocks(CSvcContextHolder::Get()->GetFs()->EnumLocks(), list);
  });
}

void GetLogFolder(const CInputArguments&, COutputArguments& output) {
  RunCommand("RPC: GetLogFolder", NoFailureText, [&] {
    const std::filesystem::path path = logging::GetLogPath();
    output.SetUnicode(argument_names::LogFolder(), path.parent_path().string());
  });
}

void TestCompatible(const CInputArguments& input, COutputArguments& output) {
  RunCommand("Test compatible.", NoFailureText, [&] {
    const std::string console = input.GetUnicode(argument_names::BackupConsoleVersion());
    const std::string module = logging::ModuleVersion();
    g_nfs_log.Info("Checking compatibility with console version:'%1'. Module path: '%2'.", console,
                   platform::ExecutablePath());
    const bool isCompatible = IsConsoleCompatible(console, module);
    g_nfs_log.Info("Backup console is '%1' with module version: '%2'.", isCompatible ? "compatible" : "incompatible",
                   module);
    output.SetBool(argument_names::IsCompatible(), isCompatible);
  });
}

void GetParams(const CInputArguments&, COutputArguments& output) {
  RunCommand("RPC: GetParams", "RPC: Failed GetParams.", [&] {
    const CNfsParams params(true, ProcessCommandLine());
    output.SetMultibyte(argument_names::RootFolder(), params.GetRootFolder());
    // The number that stands for no static port is written as -1.
    output.SetInteger(argument_names::RpcPort(), static_cast<std::int32_t>(params.GetRpcPort()));
    output.SetInteger(argument_names::MountPort(), params.GetMountPort());
    output.SetInteger(argument_names::NfsPort(), params.GetNfsPort());
  });
}

void Reconfigure(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: Reconfigure", "RPC: Failed Reconfigure.", [&] {
    const boost::shared_ptr<CVirtualFs> fs = CSvcContextHolder::Get()->GetFs();
    if (!fs->EnumLocks().empty())
      throw exc::runtime_exc_t("Failed to reconfigure NFS service: there is at least 1 active connection.");
    const std::string rootFolder = input.GetMultibyte(argument_names::RootFolder());
    const std::uint32_t rpcPort = input.GetInteger(argument_names::RpcPort());
    const std::uint32_t mountPort = input.GetInteger(argument_names::MountPort());
    const std::uint32_t nfsPort = input.GetInteger(argument_names::NfsPort());
    const std::string_view trimmed = platform::Trim(rootFolder);
    if (trimmed.empty())
      throw exc::runtime_exc_t("Failed to reconfigure NFS service: invalid root folder.");
    fs->ClearItemsCache();
    // From here on a failure leaves it locked: the settings may be half of the old and half of the new.
    fs->Lock();
    CNfsParams params(false, ProcessCommandLine());
    params.SetRootFolder(std::string(trimmed));
    params.SetRpcPort(rpcPort);
    params.SetMountPort(mountPort);
    params.SetNfsPort(nfsPort);
    params.Save();
  });
}

}  // namespace commands
