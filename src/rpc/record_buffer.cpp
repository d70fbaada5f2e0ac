#include "rpc/record_buffer.h"

#include <algorithm>
#include <boost/make_shared.hpp>

namespace {

const boost::shared_ptr<io::byte_budget_t>& Budget() {
  static const auto budget = boost::make_shared<io::byte_budget_t>(CRecordBuffer::MostBeyond);
  return budget;
}

}  // namespace

bool CRecordBuffer::GrowTo(std::size_t size) {
  if (size > FirstSize) {
    if (share_ == nullptr)
      share_ = std::make_unique<io::byte_share_t>(Budget());
    if (!share_->Grow(size - std::max(this->size(), FirstSize)))
      return false;
  }
  resize(size);
  return true;
}
