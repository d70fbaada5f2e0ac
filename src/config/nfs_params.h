// The settings that an administrator reads and changes, as they are stored.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <utility>

#include "config/reg_config_ports.h"
#include "config/reg_config_root_folder.h"
#include "config/rpc_server_settings.h"
#include "foundation/command_line.h"

/// What is set here reaches the running service at its next start. One thread at a time.
class CNfsParams {
 public:
  /// What GetRpcPort gives and SetRpcPort takes for no static port.
  static constexpr std::uint32_t NoStaticPort = 4294967295U;

  /// The defaults, and what is stored when `load` is set. commandLine: the process's. Throws as Load does.
  CNfsParams(bool load, CCommandLine commandLine);

  /// Throws when the root folder cannot be read.
  void Load();
  /// The management port, then the other two ports, then the root folder. Throws at the first that cannot be stored.
  void Save() const;

  std::uint32_t GetRpcPort() const;
  std::uint16_t GetMountPort() const { return ports_->GetMountPort(); }
  std::uint16_t GetNfsPort() const { return ports_->GetNfsPort(); }
  std::string GetRootFolder() const { return rootFolder_->Get(); }
  /// Each throws "Invalid argument." for a port above 65535.
  void SetRpcPort(std::uint32_t port);
  void SetMountPort(std::uint32_t port) { ports_->SetMountPort(port); }
  void SetNfsPort(std::uint32_t port) { ports_->SetNfsPort(port); }
  void SetRootFolder(std::string text) { rootFolder_->Set(std::move(text)); }

 private:
  const CCommandLine commandLine_;
  CRpcServerSettings rpcSettings_;
  const boost::shared_ptr<CRegConfigPorts> ports_;
  const boost::shared_ptr<CRegConfigRootFolder> rootFolder_;
};
