// Allowed hosts, and the reported size of the datastore.
#include "config/address_checker.h"
#include "management/command_frame.h"
#include "management/commands.h"
#include "management/output_arguments.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace commands {

void AddEsxHostAddr(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: AddEsxHostAddr", "RPC: Failed AddEsxHostAddr.", [&] {
    const std::string list = input.GetMultibyte(argument_names::AllowedHostAddr());
    CSvcContextHolder::Get()->GetAddressChecker()->AddAddresses(list);
  });
}

void DeleteEsxHostAddr(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: DeleteEsxHostAddr", "RPC: Failed DeleteEsxHostAddr.", [&] {
    const std::string list = input.GetMultibyte(argument_names::AllowedHostAddr());
    CSvcContextHolder::Get()->GetAddressChecker()->RemoveAddresses(list);
  });
}

void SetNfsDatastoreSize(const CInputArguments& input, COutputArguments&) {
  RunCommand("RPC: SetNFSDatastoreSize", "RPC: Failed SetNFSDatastoreSize.", [&] {
    const std::uint64_t totalBytes = input.GetUInt64(argument_names::NfsTotalSpace());
    const std::uint64_t freeBytes = input.GetUInt64(argument_names::NfsFreeSpace());
    CSvcContextHolder::Get()->GetFs()->SetDatastoreSize(totalBytes, freeBytes);
  });
}

void GetNfsDatastoreSize(const CInputArguments&, COutputArguments& output) {
  RunCommand("RPC: GetNFSDatastoreSize", "RPC: Failed GetNFSDatastoreSize.", [&] {
    bool isSet = false;
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
    CSvcContextHolder::Get()->GetFs()->GetDatastoreSize(isSet, totalBytes, freeBytes);
    output.SetUInt64(argument_names::NfsTotalSpace(), totalBytes);
    output.SetUInt64(argument_names::NfsFreeSpace(), freeBytes);
    output.SetBool(argument_names::NfsCustomSize(), isSet);
  });
}

void ResetNfsDatastoreSize(const CInputArguments&, COutputArguments&) {
  RunCommand("RPC: ResetNFSDatastoreSize", "RPC: Failed ResetNFSDatastoreSize.",
             [&] { CSvcContextHolder::Get()->GetFs()->ResetDatastoreSize(); });
}

}  // namespace commands
