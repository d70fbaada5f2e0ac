#include "config/reg_config_root_folder.h"

#include <algorithm>
#include <utility>

#include "config/reg_keys.h"
#include "config/registry_errors.h"
#include "platform/environment.h"
#include "platform/registry.h"
#include "platform/text.h"

namespace {

bool IsSeparator(char c) {
  return c == '\\' || c == '/';
}

}  // namespace

std::string_view TrimRootFolder(std::string_view text) noexcept {
  text = platform::Trim(text);
  if (text.size() < 2 || !IsSeparator(text.back()))
    return text;
  const bool isDrive = text.size() == 3 && text[1] == ':';
  return isDrive ? text : text.substr(0, text.size() - 1);
}

CRegConfigRootFolder::CRegConfigRootFolder(bool load) {
  if (load)
    Load();
}

bool CRegConfigRootFolder::Load() {
  std::string stored;
  try {
    ThrowUnlessGone(platform::registry_t::Instance().GetText(regkeys::Root, "RootFolder", stored),
                    "Failed to open registry key [%1].", regkeys::Root);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to load registry options.", failure);
  }
  const std::string_view text = TrimRootFolder(stored);
  Set(std::string(text.empty() ? DefaultFolder : text));
  return !text.empty();
}

void CRegConfigRootFolder::Save() const {
  std::string text;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    text = text_;
  }
  try {
    ThrowIfFailed(platform::registry_t::Instance().SetText(regkeys::Root, "RootFolder", text),
                  "Failed to open registry key [%1].", regkeys::Root);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to save registry options.", failure);
  }
}

std::string CRegConfigRootFolder::Get() const {
  std::string text;
  {
    const std::lock_guard<std::mutex> lock(lock_);
    text = text_;
  }
  text = platform::ExpandEnvironment(text);
  std::replace(text.begin(), text.end(), '\\', '/');
  return text;
}

void CRegConfigRootFolder::Set(std::string text) {
  const std::lock_guard<std::mutex> lock(lock_);
  text_ = std::move(text);
}
