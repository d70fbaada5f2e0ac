// What was read as the result of READ.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>

#include "rpc/xdr_writer.h"
#include "vfs/items/fs_item.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/nfs3/nfs_results.h"

/// Lends the buffer a pipe for a large read, when the reply can be sent from there.
inline void LendPipe(SFsReadBuffer& buffer, const CXDRWriter& writer, std::uint32_t count) {
  using platform::kernel_pipe_t;
  if (writer.TakesPipes() && count >= kernel_pipe_t::Least && count <= kernel_pipe_t::Largest)
    buffer.pipe = kernel_pipe_t::Acquire();
}

/// Lets a buffer go that is much larger than what was read into it, since the reply keeps it until the client takes it.
/// The last read of a file copies a quarter of the buffer at most; one that filled its buffer nothing.
inline void TrimReadBuffer(SFsReadBuffer& buffer) {
  constexpr std::size_t NotWorthIt = 1024;
  constexpr std::size_t MostTimes = 4;
  const std::size_t room = buffer.data.capacity();
  if (room <= NotWorthIt || buffer.length == 0 || buffer.length >= room / MostTimes)
    return;
  const auto begin = buffer.data.begin();
  buffer.data = io::byte_buffer_t(begin, begin + static_cast<std::ptrdiff_t>(buffer.length));
}

/// The buffer that the backend filled is itself a piece of the reply; the reply keeps it alive.
inline void SetReadResult(READ3res& result, const boost::shared_ptr<SFsReadBuffer>& buffer) {
  result.count = buffer->length;
  result.eof = buffer->eof;
  if (buffer->isInPipe) {
    result.pipe = buffer->pipe;
    return;
  }
  // There are few: whoever does not take replies must not keep those that the replies do not need.
  buffer->pipe.reset();
  if (buffer->data.size() < buffer->length) {
    SetFailedResult(result, NFS3ERR_SERVERFAULT);
    return;
  }
  TrimReadBuffer(*buffer);
  result.data = boost::shared_ptr<const io::byte_buffer_t>(buffer, &buffer->data);
}
