// Shares and their folders.
#include <boost/make_shared.hpp>

#include "config/nfs_share_cfg.h"
#include "config/reg_config_root_folder.h"
#include "management/command_frame.h"
#include "management/commands.h"
#include "management/output_arguments.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace commands {

void CreateShare(const CInputArguments& input, COutputArguments& output) {
  RunCommand("RPC: CreateShare", "RPC: Failed CreateShare.", [&] {
    const std::string nfsFolderPath = input.GetMultibyte(argument_names::NfsFolderPath());
    const boost::shared_ptr<CSvcContext> context = CSvcContextHolder::Get();
    const auto cfg = boost::make_shared<CNfsShareCfg>();
    cfg->localPath = context->GetRootFolder()->Get();
    cfg->nfsFolderName = nfsFolderPath;
    output.SetGuid(argument_names::ShareId(), context->GetFs()->CreateShare(cfg));
  });
}

void LookupShare(const CInputArguments& input, COutputArguments& output) {
  RunCommand("RPC: LookupShare", "RPC: Failed LookupShare.", [&] {
    const std::string mountPoint = input.GetMultibyte(argument_names::MountPoint());
    output.SetGuid(argument_names::ShareId(), CSvcContextHolder::Get()->GetFs()->GetShareId(mountPoint));
  });
}

void GetShareConfig(const CInputArguments& input, COutputArguments& output) {
  RunCommand("RPC: GetShareConfig", "RPC: Failed GetShareConfig.", [&] {
    const GUID shareId = input.GetGuid(argument_names::ShareId());
    output.SetMultibyte(argument_names::NfsFolderPath(),
                        CSvcContextHolder::Get()->GetFs()->GetShareCfgCopy(shareId)->nfsFolderName);
  });
}

void DeleteShare(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: DeleteShare", "RPC: Failed DeleteShare.", [&] {
    const GUID shareId = input.GetGuid(argument_names::ShareId());
    CSvcContextHolder::Get()->GetFs()->DismountShare(shareId);
  });
}

void CreateFolder(const CInputArguments& input, COutputArguments& output) {
  RunCommand("RPC: CreateFolder", "RPC: Failed CreateFolder.", [&] {
    const GUID shareId = input.GetGuid(argument_names::ShareId());
    const std::string relativePath = input.GetMultibyte(argument_names::NfsRelativePath());
    const std::string allowedHostAddr = GetAllowedHostAddr(input);
    output.SetMultibyte(argument_names::HostFsPath(),
                        CSvcContextHolder::Get()->GetFs()->CreateHostFolder(shareId, relativePath, allowedHostAddr));
  });
}

void DeleteFolder(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: DeleteFolder", "RPC: Failed DeleteFolder.", [&] {
    const GUID shareId = input.GetGuid(argument_names::ShareId());
    const std::string relativePath = input.GetMultibyte(argument_names::NfsRelativePath());
    CSvcContextHolder::Get()->GetFs()->DeleteHostFolder(shareId, relativePath);
  });
}

}  // namespace commands
