// The life of objects that pending work holds on to.
#pragma once

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstdint>

/// Counts its references inside itself and is destroyed with the last one. Made with new and held by
/// boost::intrusive_ptr. Any thread.
class CCounted {
 public:
  CCounted() = default;
  CCounted(const CCounted&) = delete;
  CCounted& operator=(const CCounted&) = delete;
  virtual ~CCounted() = default;

  void AddRef() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
  void Release() const noexcept {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete this;
    }
  }
  /// False when the object is being destroyed already. The caller sees to it that its memory still stands.
  bool TryAddRef() const noexcept {
    std::uint32_t count = count_.load(std::memory_order_relaxed);
    while (count != 0) {
      if (count_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel, std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }

 private:
  mutable std::atomic<std::uint32_t> count_{0};
};

inline void intrusive_ptr_add_ref(const CCounted* object) noexcept {
  object->AddRef();
}
inline void intrusive_ptr_release(const CCounted* object) noexcept {
  object->Release();
}
