#include "platform/environment.h"

#include <unistd.h>

#include <cstdlib>

#include "platform/text.h"

namespace platform {
namespace {

constexpr std::string_view CommonDataVariable = "ALLUSERSPROFILE";

std::string FolderOfVariable(const char* variable, const char* unset) {
  const char* value = std::getenv(variable);
  std::string folder = value == nullptr || *value == '\0' ? unset : value;
  while (folder.size() > 1 && folder.back() == '/')
    folder.pop_back();
  return folder;
}

}  // namespace

std::optional<std::string> EnvironmentVariable(std::string_view name) {
  if (const char* exact = std::getenv(std::string(name).c_str()))
    return exact;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string_view::npos && EqualIgnoringCase(text.substr(0, equals), name))
      return std::string(text.substr(equals + 1));
  }
  return std::nullopt;
}

std::string ExpandEnvironment(std::string_view text) {
  std::string result;
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t open = text.find('%', position);
    const std::size_t close = open == std::string_view::npos ? open : text.find('%', open + 1);
    if (close == std::string_view::npos)
      break;
    const std::string_view name = text.substr(open + 1, close - open - 1);
    std::optional<std::string> value;
    if (EqualIgnoringCase(name, CommonDataVariable)) {
      value = CommonAppDataFolder();
    } else if (!name.empty()) {
      value = EnvironmentVariable(name);
    }
    result += text.substr(position, open - position);
    if (value) {
      result += *value;
      position = close + 1;
    } else {
      // The second sign may open a name of its own.
      result += text.substr(open, close - open);
      position = close;
    }
  }
  result += text.substr(position);
  return result;
}

std::string CommonAppDataFolder() {
  return FolderOfVariable(CommonDataVariable.data(), "/var/lib");
}

std::string RuntimeFolder() {
  return FolderOfVariable("KELVO_RUNTIME_DIR", "/run/kelvo");
}

}  // namespace platform
