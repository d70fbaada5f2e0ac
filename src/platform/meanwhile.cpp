#include "platform/meanwhile.h"

#include <utility>

namespace platform {
namespace {

const std::function<void()>*& Own() noexcept {
  thread_local constinit const std::function<void()>* own = nullptr;
  return own;
}

}  // namespace

meanwhile_t::meanwhile_t(std::function<void()> work) : work_(std::move(work)) {
  Own() = &work_;
}

meanwhile_t::~meanwhile_t() {
  Own() = nullptr;
}

void meanwhile_t::Work() noexcept {
  if (const auto* own = Own()) {
    (*own)();
  }
}

}  // namespace platform
