// What was read as the result of READ.
#pragma once

#include <boost/shared_ptr.hpp>

#include "vfs/items/fs_item.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/nfs3/nfs_results.h"

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
