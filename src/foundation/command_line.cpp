#include "foundation/command_line.h"

#include <algorithm>

#include "foundation/exc.h"
#include "platform/text.h"

CCommandLine::CCommandLine(int count, const char* const* arguments) {
  if (count < 1 || arguments == nullptr)
    throw exc::runtime_exc_t("The process was started without arguments.");
  arguments_.assign(arguments, arguments + count);
}

std::optional<std::size_t> CCommandLine::Find(std::string_view name) const {
  const auto place = std::find_if(arguments_.begin(), arguments_.end(), [name](const std::string& argument) {
    return platform::EqualIgnoringCase(argument, name);
  });
  if (place == arguments_.end())
    return std::nullopt;
  return static_cast<std::size_t>(place - arguments_.begin());
}

std::optional<std::string> CCommandLine::ValueOf(std::string_view name) const {
  const std::optional<std::size_t> index = Find(name);
  if (!index || *index + 1 >= arguments_.size())
    return std::nullopt;
  return arguments_[*index + 1];
}

CCommandLine CCommandLine::Without(std::string_view name) const {
  std::vector<std::string> rest = arguments_;
  if (const auto index = Find(name)) {
    const std::size_t end = std::min(*index + 2, rest.size());
    rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(*index), rest.begin() + static_cast<std::ptrdiff_t>(end));
  }
  return CCommandLine(std::move(rest));
}
