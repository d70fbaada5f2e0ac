// The command line of kelvo-nfsctl.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "kelvo-nfsctl/service.h"

namespace nfsctl {

inline constexpr int Succeeded = 0;
inline constexpr int Failed = 1;
inline constexpr int BadUsage = 2;

using service_factory_t = std::function<std::unique_ptr<IService>(const SConnectionOptions&)>;

/// Runs one command line, without the program's name, and gives the exit code. Never throws what the command throws.
int Run(std::vector<std::string> arguments, const service_factory_t& connect, std::ostream& out, std::ostream& err);

}  // namespace nfsctl
