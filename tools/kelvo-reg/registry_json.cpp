#include "registry_json.h"

#include <array>
#include <charconv>
#include <limits>

#include "platform/text.h"

namespace tool {
namespace {

/// In the order of the variant's alternatives.
constexpr std::array<const char*, 3> TypeNames{"REG_SZ", "REG_DWORD", "REG_QWORD"};

std::optional<std::uint64_t> ParseNumber(std::string_view text) {
  if (!text.starts_with("0x") && !text.starts_with("0X"))
    return platform::ParseU64(text);
  text.remove_prefix(2);
  std::uint64_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number, 16);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != text.data() + text.size())
    return std::nullopt;
  return number;
}

}  // namespace

nlohmann::ordered_json KeyToJson(const platform::registry_node_t& node) {
  auto values = nlohmann::ordered_json::object();
  for (const platform::registry_value_t& value : node.values) {
    auto& entry = values[value.name];
    entry["type"] = TypeNames.at(value.data.index());
    std::visit([&entry](const auto& data) { entry["data"] = data; }, value.data);
  }
  auto keys = nlohmann::ordered_json::object();
  for (const platform::registry_node_t& key : node.keys)
    keys[key.name] = KeyToJson(key);
  auto result = nlohmann::ordered_json::object();
  result["values"] = std::move(values);
  result["keys"] = std::move(keys);
  return result;
}

std::string DataToText(const platform::registry_data_t& data) {
  if (const auto* text = std::get_if<std::string>(&data))
    return *text;
  if (const auto* dword = std::get_if<std::uint32_t>(&data))
    return std::to_string(*dword);
  return std::to_string(std::get<std::uint64_t>(data));
}

std::optional<platform::registry_data_t> DataFromText(std::string_view type, const std::string& text) {
  if (platform::EqualIgnoringCase(type, TypeNames[0]))
    return text;
  const std::optional<std::uint64_t> number = ParseNumber(text);
  if (!number)
    return std::nullopt;
  if (platform::EqualIgnoringCase(type, TypeNames[2]))
    return *number;
  if (!platform::EqualIgnoringCase(type, TypeNames[1]) || *number > std::numeric_limits<std::uint32_t>::max())
    return std::nullopt;
  return static_cast<std::uint32_t>(*number);
}

}  // namespace tool
