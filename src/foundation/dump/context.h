// Registers of threads, in the form in which a dump holds them.
#pragma once

#include <sys/user.h>
#include <ucontext.h>

#include "foundation/dump/minidump_format.h"

namespace crash {

#ifndef __x86_64__
#error \
    "Crash dumps know the registers of x86-64 alone: another processor needs its record here and in minidump_format.h."
#endif

/// What the system handed to a signal handler.
void FromSignal(const ucontext_t& signal, minidump::context_t& context) noexcept;
/// What the system tells of a stopped thread.
void FromTrace(const user_regs_struct& registers, const user_fpregs_struct& floats,
               minidump::context_t& context) noexcept;
/// Of a thread that could not be stopped: where it waits in the system, as /proc/PID/task/TID/syscall tells; false when
/// it tells nothing.
bool FromWait(const char* path, minidump::context_t& context) noexcept;

}  // namespace crash
