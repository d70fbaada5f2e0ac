#include "platform/memory.h"

#include <malloc.h>

namespace platform {

void ReturnFreeMemory() noexcept {
  ::malloc_trim(0);
}

}  // namespace platform
