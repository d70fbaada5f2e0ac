#include "transports/sync/xdr_reply_batch.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

/// Copying less than this costs less than a piece of its own.
constexpr std::size_t SmallPiece = 4096;

}  // namespace

CXdrReplyBatch::CXdrReplyBatch(boost::shared_ptr<CSocketIP> socket) : socket_(std::move(socket)) {}

void CXdrReplyBatch::Add(CXDRWriter& reply) {
  for (SXdrSegment& segment : reply.TakeSegments(true)) {
    if (segment.pipe != nullptr) {
      AddPipe(segment);
      continue;
    }
    const std::uint8_t* data = segment.buffer->data() + segment.offset;
    std::size_t length = segment.length;
    held_.push_back(std::move(segment));
    while (length > 0) {
      const std::size_t part = std::min(length, BatchSize - fill_);
      AddPiece(data, part);
      data += part;
      length -= part;
      if (fill_ == BatchSize) {
        // Of what is held the last one is not out yet.
        SXdrSegment last = held_.back();
        Flush();
        held_.push_back(std::move(last));
      }
    }
  }
}

void CXdrReplyBatch::AddPiece(const std::uint8_t* data, std::size_t length) {
  if (length >= SmallPiece) {
    Put(data, length);
    return;
  }
  if (small_ == nullptr)
    small_.reset(new std::uint8_t[BatchSize]);
  std::uint8_t* const place = small_.get() + smallFill_;
  std::memcpy(place, data, length);
  smallFill_ += length;
  Put(place, length);
}

void CXdrReplyBatch::Put(const std::uint8_t* data, std::size_t length) {
  fill_ += length;
  if (!pieces_.empty()) {
    iovec& last = pieces_.back();
    if (static_cast<const std::uint8_t*>(last.iov_base) + last.iov_len == data) {
      last.iov_len += length;
      return;
    }
  }
  pieces_.push_back({const_cast<std::uint8_t*>(data), length});
}

void CXdrReplyBatch::AddPipe(const SXdrSegment& segment) {
  SendGathered(true);
  socket_->SendPipe(*segment.pipe, false);
}

void CXdrReplyBatch::Flush() {
  SendGathered(false);
}

void CXdrReplyBatch::SendGathered(bool more) {
  if (fill_ != 0)
    socket_->SendPieces(pieces_, more);
  pieces_.clear();
  held_.clear();
  fill_ = 0;
  smallFill_ = 0;
}
