// A counted socket with overlapped operations.
#pragma once

#include <sys/socket.h>

#include "transports/async/io_object.h"

namespace win {

/// Owns a descriptor, which is closed with the object.
class CSocket : public CIoObject {
 public:
  ~CSocket() override;
  int GetHandle() const noexcept override { return handle_; }

 protected:
  /// Takes the descriptor over; -1 for one that is adopted later.
  explicit CSocket(int handle) noexcept : handle_(handle) {}
  void Adopt(int handle) noexcept { handle_ = handle; }

 private:
  int handle_;
};

}  // namespace win
