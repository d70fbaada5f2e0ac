// The byte vector in which records and file data travel.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace io {

/// Leaves new elements uninitialised, so that sizing a buffer to be filled does not clear it first.
template <typename T>
class default_init_allocator_t : public std::allocator<T> {
 public:
  template <typename U>
  struct rebind {
    using other = default_init_allocator_t<U>;
  };
  using std::allocator<T>::allocator;

  template <typename U>
  void construct(U* place) noexcept(std::is_nothrow_default_constructible_v<U>) {
    ::new (static_cast<void*>(place)) U;
  }
  template <typename U, typename... Args>
  void construct(U* place, Args&&... arguments) {
    ::new (static_cast<void*>(place)) U(std::forward<Args>(arguments)...);
  }
};

/// resize() leaves the new bytes undefined: whoever sizes it fills it.
using byte_buffer_t = std::vector<std::uint8_t, default_init_allocator_t<std::uint8_t>>;

}  // namespace io
