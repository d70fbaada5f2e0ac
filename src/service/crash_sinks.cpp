#include "service/crash_sinks.h"

#include "foundation/log.h"

void CNFSCrashSink::OnCrash(const std::exception&) {
  g_log.Warning("! Posting VM_QUIT message...");
}

void CSilentNFSCrashSink::OnCrash(const std::exception&) {}
