#include "transports/sync/xdr_reply_batch.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/exc.h"

namespace {

/// Copying less than this costs less than a piece of its own.
constexpr std::size_t SmallPiece = 4096;

}  // namespace

CXdrReplyBatch::CXdrReplyBatch(boost::shared_ptr<CSocketIP> socket) : socket_(std::move(socket)) {}

void CXdrReplyBatch::Add(CXDRWriter& reply) {
  current_ = reply.TakeSegments(true);
  for (next_ = 0; next_ < current_.size();) {
    // Behind this it may be in memory.
    if (current_[next_].pipe != nullptr)
      SendGathered(true);
    SXdrSegment segment = std::move(current_[next_++]);
    if (segment.pipe != nullptr) {
      socket_->SendPipe(std::move(segment.pipe), false);
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

void CXdrReplyBatch::EmptyPipes() {
  for (std::size_t i = next_; i < current_.size(); ++i) {
    if (current_[i].pipe == nullptr)
      continue;
    if (const platform::error_t error = BringIntoMemory(current_[i]); error != platform::error::Success)
      throw exc::win_sys_exc_t("The data to be sent is out of reach.", error);
  }
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
