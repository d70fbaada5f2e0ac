#include "transports/sockets/fast_socket_io_dev.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/log.h"

namespace io::net {

CFastSocketIoDev::CFastSocketIoDev(boost::shared_ptr<io_dev_t> device, std::size_t bufferSize)
    : device_(std::move(device)), buffer_(std::max<std::size_t>(bufferSize, 1)) {}

CFastSocketIoDev::~CFastSocketIoDev() {
  try {
    Flush();
  } catch (const std::exception& failure) {
    g_log.Warning("Buffered data was not sent.", failure);
  }
}

std::uint64_t CFastSocketIoDev::Write(const void* data, std::uint64_t length) {
  const auto* place = static_cast<const std::uint8_t*>(data);
  std::uint64_t left = length;
  while (left > 0) {
    const std::size_t step = std::min<std::size_t>(left, buffer_.size() - fill_);
    std::memcpy(buffer_.data() + fill_, place, step);
    fill_ += step;
    place += step;
    left -= step;
    if (fill_ == buffer_.size())
      Flush();
  }
  return length;
}

std::uint64_t CFastSocketIoDev::Read(void* data, std::uint64_t length) {
  return device_->Read(data, length);
}

void CFastSocketIoDev::Flush() {
  // Not kept when the device fails: the stream is broken then, and sending it twice would be worse.
  const std::size_t fill = std::exchange(fill_, 0);
  if (fill > 0)
    device_->Write(buffer_.data(), fill);
}

}  // namespace io::net
