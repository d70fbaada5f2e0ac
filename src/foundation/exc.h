// The exception family: every failure inside the service is one of these.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <exception>
#include <iosfwd>
#include <list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/error.h"

namespace exc {

/// What FormatText accepts as an argument: text as it is, integers in decimal, bool as "true" or "false".
inline std::string ToText(std::string_view text) {
  return std::string(text);
}
inline std::string ToText(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}
inline std::string ToText(const std::string& text) {
  return text;
}
template <typename T>
requires std::is_integral_v<T> std::string ToText(T number) {
  if constexpr (std::is_same_v<T, bool>) {
    return number ? "true" : "false";
  } else {
    return std::to_string(number);
  }
}

/// Replaces %1 … %9 by the arguments, in any order and as often as they stand. A placeholder without an
/// argument stays as it is; text that comes in with an argument is never expanded again.
std::string FormatArguments(std::string_view pattern, const std::vector<std::string>& arguments);

template <typename... Args>
std::string FormatText(std::string_view pattern, const Args&... arguments) {
  return FormatArguments(pattern, {ToText(arguments)...});
}

/// The root. Holds a list of texts, root cause first, one a level. Not shared between threads while it is changed.
class exc_base_t : public std::exception {
 public:
  exc_base_t();
  explicit exc_base_t(std::string text);

  /// The texts joined with line feeds; empty without texts.
  const char* what() const noexcept override;
  virtual boost::shared_ptr<exc_base_t> Clone() const;
  /// Throws a copy of the dynamic type.
  [[noreturn]] virtual void Rethrow() const;
  /// Little-endian: count, then length, bytes and flag of each text; then the parameters. Throws runtime_exc_t
  /// on a stream that ends early or announces more than it holds.
  virtual void Deserialize(std::istream& stream);
  virtual void Serialize(std::ostream& stream) const;
  /// The class's name, as "runtime_exc_t".
  virtual std::string GetKind() const;

  void AddMessage(std::string text);
  void AddTranslatedMessage(std::string text);
  void AddParameter(std::string name, std::string value);

  struct message_t {
    std::string text;
    bool translated = false;
    bool operator==(const message_t&) const = default;
  };
  const std::list<message_t>& Messages() const { return messages_; }
  const std::vector<std::pair<std::string, std::string>>& Parameters() const { return parameters_; }
  /// As what(), with "--tr:" before each translated text.
  const std::string& TaggedText() const { return taggedText_; }
  /// The kernel's id of the thread that built the exception.
  std::uint32_t ThreadId() const { return threadId_; }

 private:
  void Rebuild();

  std::list<message_t> messages_;
  std::string text_;
  std::string taggedText_;
  std::vector<std::pair<std::string, std::string>> parameters_;
  std::uint32_t threadId_ = 0;
};

/// Gives Derived the three virtual operations that depend on the dynamic type.
template <typename Derived, typename Base>
class exc_of_t : public Base {
 public:
  using Base::Base;
  boost::shared_ptr<exc_base_t> Clone() const override {
    return boost::shared_ptr<exc_base_t>(new Derived(static_cast<const Derived&>(*this)));
  }
  [[noreturn]] void Rethrow() const override { throw Derived(static_cast<const Derived&>(*this)); }
};

/// A logical failure with text alone.
class runtime_exc_t : public exc_of_t<runtime_exc_t, exc_base_t> {
 public:
  explicit runtime_exc_t(std::string text) : exc_of_t(std::move(text)) {}
  template <typename... Args>
  explicit runtime_exc_t(std::string_view pattern, const Args&... arguments) requires(sizeof...(Args) > 0)
      : exc_of_t(FormatText(pattern, arguments...)) {}
  std::string GetKind() const override;
};

/// A failure with a Win32 or WSA number. Its texts: the system's sentence, the caller's, "Error code: N".
class win_sys_exc_t : public exc_of_t<win_sys_exc_t, exc_base_t> {
 public:
  win_sys_exc_t(const std::string& text, platform::error_t code);
  platform::error_t Code() const { return code_; }
  std::string GetKind() const override;
  void Deserialize(std::istream& stream) override;
  void Serialize(std::ostream& stream) const override;

 private:
  platform::error_t code_ = 0;
};

/// A failure with an HRESULT.
class com_exc_t : public exc_of_t<com_exc_t, exc_base_t> {
 public:
  com_exc_t(const std::string& text, std::int32_t result);
  std::int32_t Result() const { return result_; }
  std::string GetKind() const override;
  void Deserialize(std::istream& stream) override;
  void Serialize(std::ostream& stream) const override;

 private:
  std::int32_t result_ = 0;
};

/// A timed receive ran out.
class socket_timeout_exc_t : public exc_of_t<socket_timeout_exc_t, exc_base_t> {
 public:
  explicit socket_timeout_exc_t(std::string text) : exc_of_t(std::move(text)) {}
  template <typename... Args>
  explicit socket_timeout_exc_t(std::string_view pattern, const Args&... arguments) requires(sizeof...(Args) > 0)
      : exc_of_t(FormatText(pattern, arguments...)) {}
  std::string GetKind() const override;
};

/// A file held by another process.
class file_locked_exc_t : public exc_of_t<file_locked_exc_t, exc_base_t> {
 public:
  explicit file_locked_exc_t(std::string path);
  const std::string& Path() const { return path_; }
  std::string GetKind() const override;
  void Deserialize(std::istream& stream) override;
  void Serialize(std::ostream& stream) const override;

 private:
  std::string path_;
};

/// Unwinds a thread that was told to end. Not a failure; never logged as one.
class term_exc_t : public exc_of_t<term_exc_t, exc_base_t> {
 public:
  using exc_of_t::exc_of_t;
  std::string GetKind() const override;
};

/// Adds a level: throws a copy of the exception, of its own dynamic type, with the text appended. An exception
/// from outside the family becomes a runtime_exc_t first. Called from a catch block.
[[noreturn]] void ChainTextAndThrow(std::string text, const std::exception& cause);

template <typename... Args>
[[noreturn]] void ChainAndThrow(std::string_view pattern, const std::exception& cause, const Args&... arguments) {
  ChainTextAndThrow(FormatText(pattern, arguments...), cause);
}

/// A copy under shared ownership; an exception from outside the family becomes a runtime_exc_t with its text.
boost::shared_ptr<exc_base_t> CloneException(const std::exception& exception);
/// The same, or "Out of memory." when there is none for a copy. Never null.
boost::shared_ptr<exc_base_t> CloneIfPossible(const std::exception& exception) noexcept;

}  // namespace exc
