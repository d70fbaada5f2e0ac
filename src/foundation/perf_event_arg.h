// What callers make an event's data from.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace perf {

/// One argument of an event. One thread.
class CPerfEventArgBase {
 public:
  virtual ~CPerfEventArgBase() = default;

  /// The bytes that go into the record; they live as long as the argument.
  virtual const void* Data() const noexcept = 0;
  virtual std::size_t Size() const noexcept = 0;
};

/// An integer in its own width and the host's byte order, or a text without a length or an end. Keeps a copy, so that
/// the source may go before the record is written.
class CPerfEventArg final : public CPerfEventArgBase {
 public:
  template <typename Integer>
  requires std::is_integral_v<Integer>
  explicit CPerfEventArg(Integer value) noexcept : size_(sizeof(value)) {
    static_assert(sizeof(value) <= sizeof(number_));
    std::memcpy(number_.data(), &value, sizeof(value));
  }
  explicit CPerfEventArg(std::string_view text) : text_(text), size_(text.size()), isText_(true) {}

  const void* Data() const noexcept override {
    return isText_ ? static_cast<const void*>(text_.data()) : static_cast<const void*>(number_.data());
  }
  std::size_t Size() const noexcept override { return size_; }

 private:
  std::array<std::uint8_t, sizeof(std::uint64_t)> number_{};
  std::string text_;
  std::size_t size_ = 0;
  bool isText_ = false;
};

}  // namespace perf
