#include "transports/sockets/fast_socket_io_dev.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/log.h"

namespace io::net {

CFastSocketIoDev::CFastSocketIoDev(boost::shared_ptr<io_dev_t> device, std::size_t size)
    : device_(std::move(device)), buffer_(std::max<std::size_t>(size, 1)) {}

CFastSocketIoDev::~CFastSocketIoDev() {
  try {
    Flush();
  } catch (const std::exception& failure) {
    g_log.Warning("Buffered data was not sent.", failure);
  }
}

std::uint64_t CFastSocketIoDev::Write(const void* data, std::uint64_t length) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  for (std::uint64_t left = length; left > 0;) {
    if (fill_ == 0 && left >= buffer_.size()) {
      // Whole buffers need not go through ours.
      const std::uint64_t whole = left - left % buffer_.size();
      device_->Write(bytes, whole);
      bytes += whole;
      left -= whole;
      continue;
    }
    const std::size_t part = std::min<std::uint64_t>(left, buffer_.size() - fill_);
    std::memcpy(buffer_.data() + fill_, bytes, part);
    fill_ += part;
    bytes += part;
    left -= part;
    if (fill_ == buffer_.size())
      Flush();
  }
  return length;
}

std::uint64_t CFastSocketIoDev::Read(void* data, std::uint64_t length) {
  return device_->Read(data, length);
}

// What could not be sent is not tried a second time: part of it may be out already.
void CFastSocketIoDev::Flush() {
  const std::size_t length = std::exchange(fill_, 0);
  if (length > 0)
    device_->Write(buffer_.data(), length);
}

}  // namespace io::net
