// One read of a message pipe, with all that it gives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/message_pipe.h"

namespace test {

struct read_t {
  platform::error_t result;
  std::vector<std::uint8_t> bytes;
};

inline read_t Read(platform::message_pipe_t& pipe, std::size_t size, const platform::pipe_wait_t& wait = {}) {
  read_t read{0, std::vector<std::uint8_t>(size)};
  std::size_t count = 0;
  read.result = pipe.Read(read.bytes, count, wait);
  read.bytes.resize(count);
  return read;
}

}  // namespace test
