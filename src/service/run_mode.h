// What the process was started for.
#pragma once

#include "foundation/command_line.h"

enum class run_mode_t {
  Verify,       ///< "-verifycn": wait until the server is registered with the portmapper.
  Debug,        ///< "-debug": serve without the service's states.
  LogReceiver,  ///< "-logreceiver": write UDP log datagrams to a file.
  Service
};

/// "-verifycn" before "-debug" before "-logreceiver"; none of them is the service.
run_mode_t ChooseRunMode(const CCommandLine& commandLine);
