#include "foundation/dump/text.h"

#include <algorithm>
#include <cstring>

#include "platform/error.h"

namespace crash {

namespace {

std::size_t ToDigits(std::uint64_t number, std::uint64_t base, std::size_t atLeast, char (&digits)[24]) noexcept {
  std::size_t count = 0;
  for (; count < sizeof digits && (number != 0 || count < std::max<std::size_t>(atLeast, 1)); number /= base)
    digits[count++] = "0123456789abcdef"[number % base];
  std::reverse(digits, digits + count);
  return count;
}

}  // namespace

text_t& text_t::Add(std::string_view text) noexcept {
  const std::size_t length = std::min(text.size(), size_ - 1 - length_);
  std::memcpy(place_ + length_, text.data(), length);
  Cut(length_ + length);
  return *this;
}

text_t& text_t::AddDecimal(std::uint64_t number, std::size_t digits) noexcept {
  char text[24];
  return Add({text, ToDigits(number, 10, digits, text)});
}

text_t& text_t::AddSigned(std::int64_t number) noexcept {
  const auto bits = static_cast<std::uint64_t>(number);
  return Add(number < 0 ? '-' : '+').AddDecimal(number < 0 ? ~bits + 1 : bits);
}

text_t& text_t::AddHex(std::uint64_t number, std::size_t digits) noexcept {
  char text[24];
  return Add({text, ToDigits(number, 16, digits, text)});
}

text_t& text_t::AddSpaces(std::size_t count) noexcept {
  for (; count > 0 && !IsFull(); --count)
    Add(' ');
  return *this;
}

text_t& text_t::Format(std::string_view pattern, std::initializer_list<std::string_view> arguments) noexcept {
  while (!pattern.empty()) {
    const std::size_t sign = pattern.find('%');
    Add(pattern.substr(0, sign));
    if (sign == std::string_view::npos)
      break;
    const char digit = sign + 1 < pattern.size() ? pattern[sign + 1] : '\0';
    const auto index = static_cast<std::size_t>(digit - '1');
    if (digit >= '1' && digit <= '9' && index < arguments.size()) {
      Add(arguments.begin()[index]);
      pattern.remove_prefix(sign + 2);
    } else {
      Add('%');
      pattern.remove_prefix(sign + 1);
    }
  }
  return *this;
}

void text_t::Cut(std::size_t length) noexcept {
  length_ = length;
  place_[length_] = '\0';
}

text_t& failure_t::NextLine() noexcept {
  return text_.IsEmpty() ? text_ : text_.Add('\n');
}

failure_t& failure_t::Add(std::string_view sentence) noexcept {
  NextLine().Add(sentence);
  return *this;
}

failure_t& failure_t::Add(std::string_view pattern, std::initializer_list<std::string_view> arguments) noexcept {
  NextLine().Format(pattern, arguments);
  return *this;
}

failure_t& failure_t::AddSystem(std::string_view pattern, std::initializer_list<std::string_view> arguments,
                                int errnoValue) noexcept {
  const platform::error_t number = platform::ErrorFromErrno(errnoValue);
  const char* const sentence = platform::ErrorSentence(number);
  Add(sentence != nullptr ? sentence : "Unknown error");
  Add(pattern, arguments);
  return Add("Error code: %1", {decimal_t(number)});
}

}  // namespace crash
