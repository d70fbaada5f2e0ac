// Tables of options: which values of a key there may be, and which field of a record each one fills.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "config/registry_errors.h"
#include "foundation/exc.h"
#include "platform/registry.h"
#include "platform/text.h"

template <typename Record>
struct option_row_t {
  std::string_view key;
  std::string_view description;  ///< Empty for none.
  /// No field: the value is reported only, whatever its type.
  std::variant<std::monostate, std::uint32_t Record::*, bool Record::*, std::string Record::*> field;
};

/// The value as the log shows it once the field has it; nothing, and the field untouched, for a value of another type.
template <typename Record>
std::optional<std::string> ApplyOption(const option_row_t<Record>& row, const platform::registry_data_t& data,
                                       Record& record) {
  const auto apply = [&](auto field) -> std::optional<std::string> {
    using field_t = decltype(field);
    if constexpr (std::is_same_v<field_t, std::monostate>) {
      return std::visit([](const auto& value) { return exc::ToText(value); }, data);
    } else if constexpr (std::is_same_v<field_t, std::string Record::*>) {
      const auto* const text = std::get_if<std::string>(&data);
      return text == nullptr ? std::nullopt : std::optional(record.*field = *text);
    } else {
      const auto* const number = std::get_if<std::uint32_t>(&data);
      if (number == nullptr)
        return std::nullopt;
      record.*field = static_cast<std::remove_reference_t<decltype(record.*field)>>(*number);
      return exc::ToText(record.*field);
    }
  };
  return std::visit(apply, row.field);
}

/// Reads the rows in their order and calls report(row, text) for each value that is there. Throws win_sys_exc_t when
/// the key cannot be opened.
template <typename Record, typename Rows, typename Report>
void ReadOptions(std::string_view key, const Rows& rows, Record& record, const Report& report) {
  std::vector<platform::registry_value_t> values;
  ThrowIfFailed(platform::registry_t::Instance().EnumerateValues(key, values), "Failed to open registry key [%1].",
                key);
  std::map<std::string_view, const platform::registry_data_t*, platform::less_ignoring_case_t> byName;
  for (const platform::registry_value_t& value : values) {
    byName.emplace(value.name, &value.data);
  }
  for (const option_row_t<Record>& row : rows) {
    const auto value = byName.find(row.key);
    if (value == byName.end())
      continue;
    if (const std::optional<std::string> text = ApplyOption(row, *value->second, record))
      report(row, *text);
  }
}
