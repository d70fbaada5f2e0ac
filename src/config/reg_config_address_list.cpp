#include "config/reg_config_address_list.h"

#include <utility>

#include "config/reg_keys.h"
#include "config/registry_errors.h"
#include "platform/registry.h"

CRegConfigAddressList::CRegConfigAddressList(std::string valueName) : valueName_(std::move(valueName)) {}

std::string CRegConfigAddressList::Load() const {
  platform::registry_t& registry = platform::registry_t::Instance();
  std::string text;
  if (registry.CreateKey(regkeys::Root) != platform::error::Success ||
      registry.GetText(regkeys::Root, valueName_, text) != platform::error::Success)
    return {};
  return text;
}

void CRegConfigAddressList::Save(std::string_view text) const {
  platform::registry_t& registry = platform::registry_t::Instance();
  if (registry.CreateKey(regkeys::Root) != platform::error::Success)
    return;
  const platform::error_t error = registry.SetText(regkeys::Root, valueName_, text);
  if (error != platform::error::Success) {
    throw exc::win_sys_exc_t(
        exc::FormatText("Failed to serialize ip address list. Reg key name: [%1]. Addr: [%2].", valueName_, text),
        error);
  }
}
