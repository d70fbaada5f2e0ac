// Pipes of the kernel's that hold what a test wants them to.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "foundation/byte_buffer.h"
#include "platform/kernel_pipe.h"
#include "rpc/xdr_reader.h"

namespace test {

/// A pipe that holds the bytes, at most so many as a pipe may; null while others have all of them.
inline boost::shared_ptr<platform::kernel_pipe_t> PipeIfFree(std::span<const std::uint8_t> bytes) {
  boost::shared_ptr<platform::kernel_pipe_t> pipe = platform::kernel_pipe_t::Acquire();
  if (pipe == nullptr)
    return {};
  const platform::descriptor_t file(::memfd_create("bytes", MFD_CLOEXEC));
  if (::pwrite(file.Get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("no file for the test");
  while (pipe->Held() < bytes.size()) {
    std::size_t moved = 0;
    if (pipe->TakeFromFile(file.Get(), pipe->Held(), bytes.size() - pipe->Held(), moved) != 0 || moved == 0)
      throw std::runtime_error("no room for the test's bytes");
  }
  return pipe;
}

/// The same for who must have one.
inline boost::shared_ptr<platform::kernel_pipe_t> PipeOf(std::span<const std::uint8_t> bytes) {
  auto pipe = PipeIfFree(bytes);
  if (pipe == nullptr)
    throw std::runtime_error("no pipe for the test");
  return pipe;
}

/// All that can be had, or so many.
inline std::vector<boost::shared_ptr<platform::kernel_pipe_t>> TakePipes(
    std::size_t most = platform::kernel_pipe_t::Most) {
  std::vector<boost::shared_ptr<platform::kernel_pipe_t>> pipes;
  while (pipes.size() < most) {
    auto pipe = platform::kernel_pipe_t::Acquire();
    if (pipe == nullptr)
      break;
    pipes.push_back(std::move(pipe));
  }
  return pipes;
}

inline std::size_t FreePipes() {
  return TakePipes().size();
}

/// Reads a record of which all but the first bytes are still in the kernel.
inline CXDRReader SplitReaderOf(std::span<const std::uint8_t> record, std::size_t first) {
  const std::span<const std::uint8_t> memory = record.first(first);
  return {boost::make_shared<io::byte_buffer_t>(memory.begin(), memory.end()), PipeOf(record.subspan(first))};
}

}  // namespace test
