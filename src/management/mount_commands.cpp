// Backup mounts.
#include <boost/make_shared.hpp>

#include "config/backup_mount_cfg.h"
#include "management/command_frame.h"
#include "management/commands.h"
#include "management/output_arguments.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace commands {

void MountBackup(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: MountBackup", "RPC: Failed MountBackup.", [&] {
    const GUID mountId = input.GetGuid(argument_names::MountId());
    const auto cfg = boost::make_shared<CBackupMountCfg>();
    cfg->nfsFolderID = input.GetGuid(argument_names::ShareId());
    cfg->mountPoint = input.GetMultibyte(argument_names::NfsRelativePath());
    cfg->vmName = input.GetMultibyte(argument_names::VmName());
    cfg->description = input.GetMultibyte(argument_names::Description());
    cfg->pipe = input.GetMultibyte(argument_names::PipeName());
    cfg->allowedHostAddr = GetAllowedHostAddr(input);
    CSvcContextHolder::Get()->GetFs()->MountBackupItems(mountId, cfg);
  });
}

void DismountBackup(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: DismountBackup", "RPC: Failed DismountBackup.",
             [&] { CSvcContextHolder::Get()->GetFs()->DismountBackupItems(input.GetGuid(argument_names::MountId())); });
}

}  // namespace commands
