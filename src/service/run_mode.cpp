#include "service/run_mode.h"

run_mode_t ChooseRunMode(const CCommandLine& commandLine) {
  if (commandLine.Has("-verifycn"))
    return run_mode_t::Verify;
  if (commandLine.Has("-debug"))
    return run_mode_t::Debug;
  if (commandLine.Has("-logreceiver"))
    return run_mode_t::LogReceiver;
  return run_mode_t::Service;
}
