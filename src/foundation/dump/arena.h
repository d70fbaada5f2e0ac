// Memory for code that runs after a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace crash {

/// One stretch of address space of its own, used from its front and given back as a whole. The system gives pages as
/// they are touched, so that holding an arena costs nothing. One thread.
class arena_t {
 public:
  /// Whether there is address space tells IsValid().
  explicit arena_t(std::size_t size) noexcept;
  arena_t(const arena_t&) = delete;
  arena_t& operator=(const arena_t&) = delete;
  ~arena_t();

  bool IsValid() const noexcept { return place_ != nullptr; }
  /// Zeroed memory for so many objects, to which that is their first state; null when the arena is used up.
  template <typename T>
  T* Take(std::size_t count) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    return count > size_ / sizeof(T) ? nullptr : static_cast<T*>(TakeBytes(count * sizeof(T)));
  }
  /// The bytes that are left, and where they begin: for what has no known size. Taken afterwards with TakeBytes.
  char* Front() noexcept { return place_ + used_; }
  std::size_t Left() const noexcept { return size_ - used_; }
  void* TakeBytes(std::size_t size) noexcept;

 private:
  char* place_ = nullptr;
  std::size_t size_ = 0;
  std::size_t used_ = 0;
};

}  // namespace crash
