#include "transports/async/socket.h"

#include <unistd.h>

namespace win {

CSocket::~CSocket() {
  // First out of the port's sight: the number of a closed descriptor is soon another's.
  LeavePort();
  if (handle_ >= 0) {
    ::close(handle_);
  }
}

}  // namespace win
