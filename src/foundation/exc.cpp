#include "foundation/exc.h"

#include <unistd.h>

#include <algorithm>
#include <istream>
#include <ostream>

namespace exc {

namespace {

/// A text that claims to be longer grows only as its bytes arrive.
constexpr std::size_t StreamStep = 1048576;

constexpr std::uint32_t HresultFacilityMask = 0x1FFF0000;
constexpr std::uint32_t HresultFacilityWin32 = 0x00070000;

void ReadBytes(std::istream& stream, char* bytes, std::size_t length) {
  stream.read(bytes, static_cast<std::streamsize>(length));
  if (stream.gcount() != static_cast<std::streamsize>(length)) {
    throw runtime_exc_t("Serialized exception is incomplete.");
  }
}

std::uint32_t ReadNumber(std::istream& stream) {
  unsigned char bytes[4] = {};
  ReadBytes(stream, reinterpret_cast<char*>(bytes), sizeof(bytes));
  std::uint32_t number = 0;
  for (std::size_t index = sizeof(bytes); index-- > 0;)
    number = (number << 8) | bytes[index];
  return number;
}

std::string ReadText(std::istream& stream) {
  std::size_t left = ReadNumber(stream);
  std::string text;
  while (left > 0) {
    const std::size_t step = std::min(left, StreamStep);
    const std::size_t start = text.size();
    text.resize(start + step);
    ReadBytes(stream, text.data() + start, step);
    left -= step;
  }
  return text;
}

void WriteNumber(std::ostream& stream, std::uint32_t number) {
  char bytes[4] = {};
  for (char& byte : bytes) {
    byte = static_cast<char>(number & 0xFF);
    number >>= 8;
  }
  stream.write(bytes, sizeof(bytes));
}

void WriteText(std::ostream& stream, const std::string& text) {
  WriteNumber(stream, static_cast<std::uint32_t>(text.size()));
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::string HresultText(std::int32_t result) {
  const auto bits = static_cast<std::uint32_t>(result);
  if ((bits & HresultFacilityMask) == HresultFacilityWin32)
    return platform::ErrorText(bits & 0xFFFF);
  switch (bits) {
    case 0x00000000:
      return "The operation completed successfully.";
    case 0x80004001:
      return "Not implemented";
    case 0x80004002:
      return "No such interface supported";
    case 0x80004003:
      return "Invalid pointer";
    case 0x80004004:
      return "Operation aborted";
    case 0x80004005:
      return "Unspecified error";
    case 0x8000FFFF:
      return "Catastrophic failure";
    default:
      return "Unknown result.";
  }
}

const char* TextOf(const std::exception& exception) noexcept {
  const char* text = exception.what();
  return text == nullptr ? "" : text;
}

}  // namespace

std::string FormatArguments(std::string_view pattern, const std::vector<std::string>& arguments) {
  std::size_t length = pattern.size();
  for (const std::string& argument : arguments)
    length += argument.size();
  std::string text;
  text.reserve(length);
  for (std::size_t position = 0; position < pattern.size();) {
    const std::size_t mark = pattern.find('%', position);
    text.append(pattern.substr(position, mark - position));
    if (mark == std::string_view::npos)
      break;
    const char digit = mark + 1 < pattern.size() ? pattern[mark + 1] : '\0';
    const std::size_t number = digit >= '1' && digit <= '9' ? static_cast<std::size_t>(digit - '0') : 0;
    if (number == 0 || number > arguments.size()) {
      text.push_back('%');
      position = mark + 1;
    } else {
      text.append(arguments[number - 1]);
      position = mark + 2;
    }
  }
  return text;
}

exc_base_t::exc_base_t() : threadId_(static_cast<std::uint32_t>(::gettid())) {}

exc_base_t::exc_base_t(std::string text) : exc_base_t() {
  AddMessage(std::move(text));
}

const char* exc_base_t::what() const noexcept {
  return text_.c_str();
}

boost::shared_ptr<exc_base_t> exc_base_t::Clone() const {
  return boost::shared_ptr<exc_base_t>(new exc_base_t(*this));
}

void exc_base_t::Rethrow() const {
  throw exc_base_t(*this);
}

std::string exc_base_t::GetKind() const {
  return "exc_base_t";
}

void exc_base_t::Deserialize(std::istream& stream) {
  std::list<message_t> messages;
  for (std::uint32_t left = ReadNumber(stream); left > 0; --left) {
    message_t message{ReadText(stream), false};
    char flag = 0;
    ReadBytes(stream, &flag, 1);
    message.translated = flag != 0;
    messages.push_back(std::move(message));
  }
  std::vector<std::pair<std::string, std::string>> parameters;
  for (std::uint32_t left = ReadNumber(stream); left > 0; --left) {
    std::string name = ReadText(stream);
    parameters.emplace_back(std::move(name), ReadText(stream));
  }
  messages_ = std::move(messages);
  parameters_ = std::move(parameters);
  Rebuild();
}

void exc_base_t::Serialize(std::ostream& stream) const {
  WriteNumber(stream, static_cast<std::uint32_t>(messages_.size()));
  for (const message_t& message : messages_) {
    WriteText(stream, message.text);
    stream.put(message.translated ? '\1' : '\0');
  }
  WriteNumber(stream, static_cast<std::uint32_t>(parameters_.size()));
  for (const auto& [name, value] : parameters_) {
    WriteText(stream, name);
    WriteText(stream, value);
  }
}

void exc_base_t::AddMessage(std::string text) {
  messages_.push_back({std::move(text), false});
  Rebuild();
}

void exc_base_t::AddTranslatedMessage(std::string text) {
  messages_.push_back({std::move(text), true});
  Rebuild();
}

void exc_base_t::AddParameter(std::string name, std::string value) {
  parameters_.emplace_back(std::move(name), std::move(value));
}

void exc_base_t::Rebuild() {
  text_.clear();
  taggedText_.clear();
  bool first = true;
  for (const message_t& message : messages_) {
    if (!first) {
      text_.push_back('\n');
      taggedText_.push_back('\n');
    }
    first = false;
    text_ += message.text;
    if (message.translated)
      taggedText_ += "--tr:";
    taggedText_ += message.text;
  }
}

std::string runtime_exc_t::GetKind() const {
  return "runtime_exc_t";
}

win_sys_exc_t::win_sys_exc_t(const std::string& text, platform::error_t code)
    : exc_of_t(platform::ErrorText(code)), code_(code) {
  AddMessage(text);
  AddTranslatedMessage(FormatText("Error code: %1", code));
}

std::string win_sys_exc_t::GetKind() const {
  return "win_sys_exc_t";
}

void win_sys_exc_t::Deserialize(std::istream& stream) {
  exc_base_t read;
  read.Deserialize(stream);
  code_ = ReadNumber(stream);
  exc_base_t::operator=(read);
}

void win_sys_exc_t::Serialize(std::ostream& stream) const {
  exc_base_t::Serialize(stream);
  WriteNumber(stream, code_);
}

com_exc_t::com_exc_t(const std::string& text, std::int32_t result)
    : exc_of_t(FormatText("%1 Error code: %2", HresultText(result), result)), result_(result) {
  AddMessage(text);
}

std::string com_exc_t::GetKind() const {
  return "com_exc_t";
}

void com_exc_t::Deserialize(std::istream& stream) {
  exc_base_t read;
  read.Deserialize(stream);
  result_ = static_cast<std::int32_t>(ReadNumber(stream));
  exc_base_t::operator=(read);
}

void com_exc_t::Serialize(std::ostream& stream) const {
  exc_base_t::Serialize(stream);
  WriteNumber(stream, static_cast<std::uint32_t>(result_));
}

std::string socket_timeout_exc_t::GetKind() const {
  return "socket_timeout_exc_t";
}

file_locked_exc_t::file_locked_exc_t(std::string path)
    : exc_of_t(FormatText("File [%1] is locked by another process.", path)), path_(std::move(path)) {}

std::string file_locked_exc_t::GetKind() const {
  return "file_locked_exc_t";
}

void file_locked_exc_t::Deserialize(std::istream& stream) {
  exc_base_t read;
  read.Deserialize(stream);
  path_ = ReadText(stream);
  exc_base_t::operator=(read);
}

void file_locked_exc_t::Serialize(std::ostream& stream) const {
  exc_base_t::Serialize(stream);
  WriteText(stream, path_);
}

std::string term_exc_t::GetKind() const {
  return "term_exc_t";
}

void ChainTextAndThrow(std::string text, const std::exception& cause) {
  const boost::shared_ptr<exc_base_t> copy = CloneException(cause);
  copy->AddMessage(std::move(text));
  copy->Rethrow();
  // The compiler does not see through a virtual call that it never returns.
  __builtin_unreachable();
}

boost::shared_ptr<exc_base_t> CloneException(const std::exception& exception) {
  if (const auto* own = dynamic_cast<const exc_base_t*>(&exception))
    return own->Clone();
  return boost::shared_ptr<exc_base_t>(new runtime_exc_t(std::string(TextOf(exception))));
}

namespace {

const boost::shared_ptr<exc_base_t> NoMemory(new runtime_exc_t(std::string("Out of memory.")));

}  // namespace

boost::shared_ptr<exc_base_t> CloneIfPossible(const std::exception& exception) noexcept {
  try {
    return CloneException(exception);
  } catch (const std::exception&) {
    return NoMemory;
  }
}

}  // namespace exc
