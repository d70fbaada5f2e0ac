// The TCP ports of the management endpoint.
#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/command_line.h"

/// A value: copied freely, not shared between threads while it changes.
class CRpcServerSettings {
 public:
  static constexpr std::uint32_t DefaultServicePort = 6161;

  /// A fixed TCP port is used.
  bool UseStaticPort() const noexcept { return useStaticPort_; }
  std::uint32_t Port() const noexcept { return port_; }
  /// A second one is used too; the service never sets it.
  bool UseSecondPort() const noexcept { return useSecondPort_; }
  std::uint32_t SecondPort() const noexcept { return secondPort_; }

  /// A static port: the registry's value, or else that of the switch "-port", or else the default. Never throws.
  void ReadPortSettings(std::string_view keyName, const CCommandLine& commandLine, std::uint32_t defaultPort);
  /// Throws "Invalid argument." for a static port above 65535, and then changes nothing.
  void SetPort(bool useStatic, std::uint32_t port);
  /// Stores a static port; without one, removes what is stored. Throws when that fails.
  void StorePortSettings(std::string_view keyName) const;

 private:
  bool useStaticPort_ = false;
  std::uint32_t port_ = 4343;
  bool useSecondPort_ = false;
  std::uint32_t secondPort_ = 4294967295U;
};
