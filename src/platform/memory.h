// The process's memory as the system sees it.
#pragma once

namespace platform {

/// Gives memory that was freed back to the system, as far as whole pages of it are free. For after a phase that needed
/// much more than what follows; takes milliseconds for each GiB.
void ReturnFreeMemory() noexcept;

}  // namespace platform
