// Backup mounts.
#include "config/backup_mount_cfg.h"
#include "management/command_frame.h"
#include "management/commands.h"
#include "management/output_arguments.h"

namespace commands {

namespace {

constexpr char NoMounts[] = "Backup mounts are not available in this version.";

}  // namespace

void MountBackup(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: MountBackup", "RPC: Failed MountBackup.", [&] {
    input.GetGuid(argument_names::MountId());
    CBackupMountCfg cfg;
    cfg.nfsFolderID = input.GetGuid(argument_names::ShareId());
    cfg.mountPoint = input.GetMultibyte(argument_names::NfsRelativePath());
    cfg.vmName = input.GetMultibyte(argument_names::VmName());
    cfg.description = input.GetMultibyte(argument_names::Description());
    cfg.pipe = input.GetMultibyte(argument_names::PipeName());
    cfg.allowedHostAddr = GetAllowedHostAddr(input);
    throw exc::runtime_exc_t(NoMounts);
  });
}

void DismountBackup(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: DismountBackup", "RPC: Failed DismountBackup.", [&] {
    input.GetGuid(argument_names::MountId());
    throw exc::runtime_exc_t(NoMounts);
  });
}

}  // namespace commands
