// "-logreceiver": writes the log datagrams of other processes to a file.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/command_line.h"

struct CUdpLogReceiverCfg {
  std::uint16_t port = 37183;
  std::string logPath;
};

/// The defaults (KelvoUDP.log beside the process's own log), and what "-log" and "-port" say instead. A "-port" that
/// is no number below 65536 throws runtime_exc_t.
CUdpLogReceiverCfg ReadUdpLogReceiverCfg(const CCommandLine& commandLine);

/// Returns only when the file cannot be opened. Throws "Cannot bind socket", "Select error." or "Connection aborted."
/// with the socket's error.
void RunUdpLogReceiver(const CUdpLogReceiverCfg& cfg);
