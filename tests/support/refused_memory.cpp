#include "support/refused_memory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t requests = 0;
/// Which of the requests is refused, counted as they are; 0 for none.
thread_local std::size_t refused = 0;

void* Request(std::size_t size) noexcept {
  return ++requests == refused ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* const memory = Request(size))
    return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Request(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace test {

std::size_t MemoryRequests() noexcept {
  return requests;
}

RefusedRequest::RefusedRequest(std::size_t granted) noexcept {
  refused = requests + granted + 1;
}

RefusedRequest::~RefusedRequest() {
  refused = 0;
}

bool RefusedRequest::HasHappened() const noexcept {
  return requests >= refused;
}

}  // namespace test
