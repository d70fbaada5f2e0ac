// A socket as a byte device.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>

#include "foundation/io_dev.h"
#include "transports/sockets/socket_ip.h"

/// Both operations wait without a limit. As thread-safe as its socket.
class CSocketIPDev : public io::io_dev_t {
 public:
  explicit CSocketIPDev(boost::shared_ptr<CSocketIP> socket);
  std::uint64_t Write(const void* data, std::uint64_t length) override;
  std::uint64_t Read(void* data, std::uint64_t length) override;

 private:
  const boost::shared_ptr<CSocketIP> socket_;
};
