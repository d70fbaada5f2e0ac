// The registry as text for people and programs.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/registry.h"

namespace tool {

/// {"values": {NAME: {"type": …, "data": …}}, "keys": {NAME: {…}}}, in the registry's order.
nlohmann::ordered_json KeyToJson(const platform::registry_node_t& node);

/// The data as one line would hold it: text as it is, numbers in decimal.
std::string DataToText(const platform::registry_data_t& data);

/// The data of a type's name (in either case) and a text; numbers in decimal or, with 0x, in hexadecimal. Nothing when
/// the type is unknown or the text does not fit it.
std::optional<platform::registry_data_t> DataFromText(std::string_view type, const std::string& text);

}  // namespace tool
