// What both sides of message pipes share.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "platform/error.h"
#include "platform/message_pipe.h"

namespace platform {

inline constexpr std::string_view PipeFolder = "pipe";
/// Who may enter it may be an agent.
inline constexpr mode_t PipeFolderMode = 0770;

/// Waits until the socket is ready for the given events of poll(), or has failed. 258 and 995 as the wait says.
error_t WaitForReadiness(int socket, short events, const pipe_wait_t& wait) noexcept;

}  // namespace platform
