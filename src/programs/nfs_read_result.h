// What was read as the result of READ.
#pragma once

#include <boost/shared_ptr.hpp>

#include "rpc/xdr_writer.h"
#include "vfs/items/fs_item.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/nfs3/nfs_results.h"

/// Lends the buffer a pipe for a large read, when the reply can be sent from there.
inline void LendPipe(SFsReadBuffer& buffer, const CXDRWriter& writer, std::uint32_t count) {
  if (writer.TakesPipes() && count >= platform::kernel_pipe_t::Least)
    buffer.pipe = platform::kernel_pipe_t::Acquire();
}

/// The buffer that the backend filled is itself a piece of the reply; the reply keeps it alive.
inline void SetReadResult(READ3res& result, const boost::shared_ptr<SFsReadBuffer>& buffer) {
  result.count = buffer->length;
  result.eof = buffer->eof;
  if (buffer->isInPipe) {
    result.pipe = buffer->pipe;
    return;
  }
  if (buffer->data.size() < buffer->length) {
    SetFailedResult(result, NFS3ERR_SERVERFAULT);
    return;
  }
  result.data = boost::shared_ptr<const io::byte_buffer_t>(buffer, &buffer->data);
}
