#include "management/input_arguments.h"

#include <string_view>
#include <utility>

#include "foundation/exc.h"
#include "platform/error.h"
#include "platform/text.h"

namespace {

/// Runs a reader; its failure is chained under the text with the argument's name.
template <typename Reader>
auto Read(std::string_view failureText, const std::string& name, const Reader& reader) {
  try {
    return reader();
  } catch (const std::exception& failure) {
    exc::ChainAndThrow(failureText, failure, name);
  }
}

GUID ToGuid(const std::string& text) {
  constexpr platform::error_t InvalidStringUuid = 1705;
  std::string_view bare = text;
  if (text.size() >= 2) {
    if (bare.front() == '{')
      bare.remove_prefix(1);
    if (bare.back() == '}')
      bare.remove_suffix(1);
  }
  const std::optional<GUID> guid = platform::GuidFromText("{" + std::string(bare) + "}");
  if (!guid)
    throw exc::win_sys_exc_t(exc::FormatText("Failed to convert string [%1] to UUID.", bare), InvalidStringUuid);
  return *guid;
}

[[noreturn]] void ThrowNoNumber(const std::string& text) {
  throw exc::runtime_exc_t("Failed to convert string [%1] to number.", text);
}

std::uint32_t ToInteger(const std::string& text) {
  constexpr std::uint32_t LowestNegative = 0x80000000U;
  const bool isNegative = text.starts_with('-');
  const std::optional<std::uint32_t> number = platform::ParseU32(std::string_view(text).substr(isNegative ? 1 : 0));
  if (!number || (isNegative && *number > LowestNegative))
    ThrowNoNumber(text);
  return isNegative ? 0U - *number : *number;
}

std::uint64_t ToUInt64(const std::string& text) {
  const std::optional<std::uint64_t> number = platform::ParseU64(text);
  if (!number)
    ThrowNoNumber(text);
  return *number;
}

}  // namespace

CInputArguments::CInputArguments(winxml::document_ptr document) : document_(std::move(document)) {}

bool CInputArguments::HasArgument(const std::string& name) const {
  return FindArgument(name) != nullptr;
}

std::string CInputArguments::GetUnicode(const std::string& name) const {
  return Read("Failed to retrieve value of the unicode attribute '%1'.", name, [&] { return GetValue(name); });
}

std::string CInputArguments::GetMultibyte(const std::string& name) const {
  return Read("Failed to retrieve value of the multibyte attribute '%1'.", name, [&] { return GetValue(name); });
}

GUID CInputArguments::GetGuid(const std::string& name) const {
  return Read("Failed to retrieve value of the GUID attribute '%1'.", name, [&] { return ToGuid(GetValue(name)); });
}

std::uint32_t CInputArguments::GetInteger(const std::string& name) const {
  return Read("Failed to retrieve value of the integer attribute '%1'.", name,
              [&] { return ToInteger(GetValue(name)); });
}

std::uint64_t CInputArguments::GetUInt64(const std::string& name) const {
  return Read("Failed to retrieve value of the UInt64 attribute '%1'.", name, [&] { return ToUInt64(GetValue(name)); });
}

winxml::element_ptr CInputArguments::FindArgument(const std::string& name) const {
  return winxml::FindElement(winxml::GetElement(winxml::DocumentNode(document_), "InputArguments"), name);
}

std::string CInputArguments::GetValue(const std::string& name) const {
  const winxml::element_ptr argument = FindArgument(name);
  if (!argument)
    throw exc::runtime_exc_t("Value of the argument '%1' is not defined.", name);
  return winxml::GetAttribute(argument, "value");
}
