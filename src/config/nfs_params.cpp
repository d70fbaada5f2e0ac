#include "config/nfs_params.h"

#include <boost/make_shared.hpp>

#include "config/reg_keys.h"

CNfsParams::CNfsParams(bool load, CCommandLine commandLine)
    : commandLine_(std::move(commandLine)),
      ports_(boost::make_shared<CRegConfigPorts>(false)),
      rootFolder_(boost::make_shared<CRegConfigRootFolder>(false)) {
  if (load)
    Load();
}

void CNfsParams::Load() {
  rpcSettings_.ReadPortSettings(regkeys::RpcSettings, commandLine_, CRpcServerSettings::DefaultServicePort);
  ports_->Load();
  rootFolder_->Load();
}

void CNfsParams::Save() const {
  rpcSettings_.StorePortSettings(regkeys::RpcSettings);
  ports_->Save();
  rootFolder_->Save();
}

std::uint32_t CNfsParams::GetRpcPort() const {
  return rpcSettings_.UseStaticPort() ? rpcSettings_.Port() : NoStaticPort;
}

void CNfsParams::SetRpcPort(std::uint32_t port) {
  if (port == NoStaticPort) {
    rpcSettings_.SetPort(false, 0);
  } else {
    rpcSettings_.SetPort(true, port);
  }
}
