// Texts for code that runs after a crash: no heap, no locale, no lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

namespace crash {

/// Text in a place of the owner's, always zero-terminated; what does not fit is cut off. Not thread-safe.
class text_t {
 public:
  /// The place must hold at least one byte.
  text_t(char* place, std::size_t size) noexcept : place_(place), size_(size) { Clear(); }
  text_t(const text_t&) = delete;
  text_t& operator=(const text_t&) = delete;

  text_t& Add(std::string_view text) noexcept;
  text_t& Add(char byte) noexcept { return Add(std::string_view(&byte, 1)); }
  text_t& AddDecimal(std::uint64_t number, std::size_t digits = 1) noexcept;
  /// With a sign, also in front of what is not negative.
  text_t& AddSigned(std::int64_t number) noexcept;
  /// Lower case, without a prefix, filled with zeros to at least so many digits.
  text_t& AddHex(std::uint64_t number, std::size_t digits = 1) noexcept;
  text_t& AddSpaces(std::size_t count) noexcept;
  /// The pattern, with %1 … %9 replaced by the arguments.
  text_t& Format(std::string_view pattern, std::initializer_list<std::string_view> arguments) noexcept;

  void Clear() noexcept { Cut(0); }
  /// Forgets what is behind the length.
  void Cut(std::size_t length) noexcept;
  std::string_view View() const noexcept { return {place_, length_}; }
  const char* CStr() const noexcept { return place_; }
  bool IsEmpty() const noexcept { return length_ == 0; }
  /// True when no further byte fits: what was added may have been cut.
  bool IsFull() const noexcept { return length_ + 1 >= size_; }

 private:
  char* const place_;
  const std::size_t size_;
  std::size_t length_ = 0;
};

/// Brings its place along.
template <std::size_t Size>
class fixed_text_t : public text_t {
 public:
  fixed_text_t() noexcept : text_t(bytes_, Size) {}

 private:
  char bytes_[Size];
};

/// Longest path that is handled, its zero included.
inline constexpr std::size_t MaxPath = 4096;
using path_text_t = fixed_text_t<MaxPath>;

/// A number as text, for Format.
class decimal_t {
 public:
  explicit decimal_t(std::uint64_t number) noexcept { text_.AddDecimal(number); }
  operator std::string_view() const noexcept { return text_.View(); }

 private:
  fixed_text_t<24> text_;
};

/// Why a step after a crash failed: the cause first, then one sentence a level, a line each. Stands for the exceptions
/// of sound times, which would need the heap.
class failure_t {
 public:
  failure_t& Add(std::string_view sentence) noexcept;
  failure_t& Add(std::string_view pattern, std::initializer_list<std::string_view> arguments) noexcept;
  /// The system's sentence for the errno, the caller's, and the error number.
  failure_t& AddSystem(std::string_view pattern, std::initializer_list<std::string_view> arguments,
                       int errnoValue) noexcept;
  std::string_view Text() const noexcept { return text_.View(); }

 private:
  text_t& NextLine() noexcept;
  fixed_text_t<2 * MaxPath> text_;
};

}  // namespace crash
