#include "service/start_advice.h"

#include "foundation/exc.h"
#include "platform/environment.h"

namespace {

constexpr platform::error_t WsaAccess = 10013;
constexpr std::string_view BindText = "Failed to bind socket object to port \"";
constexpr std::string_view PublishText = "Failed to publish backup items.";
constexpr std::string_view MountIdText = "Mount ID: [";

/// What stands in the text behind the mark, up to the end mark.
std::string Between(const std::string& text, std::size_t begin, char end) {
  return text.substr(begin, text.find(end, begin) - begin);
}

std::optional<std::string> AdviceForBinding(const exc::exc_base_t& failure) {
  const auto* const system = dynamic_cast<const exc::win_sys_exc_t*>(&failure);
  if (system == nullptr || system->Code() != WsaAccess)
    return std::nullopt;
  for (const auto& message : system->Messages()) {
    if (!message.text.starts_with(BindText))
      continue;
    return exc::FormatText(
        "This account may not bind port %1: run KelvoNfsSvc as root or with the capability CAP_NET_BIND_SERVICE.",
        Between(message.text, BindText.size(), '"'));
  }
  return std::nullopt;
}

/// Without the service, kelvo-nfsctl cannot withdraw a mount.
std::optional<std::string> AdviceForMounts(const exc::exc_base_t& failure) {
  for (const auto& message : failure.Messages()) {
    const std::size_t id = message.text.rfind(MountIdText);
    if (!message.text.starts_with(PublishText) || id == std::string::npos)
      continue;
    return exc::FormatText(
        "Make the folder of the backup mount again, or withdraw the mount: "
        "kelvo-reg delete 'SOFTWARE/KelvO/Kelvo NFS/Dynamic mounts/%1'",
        Between(message.text, id + MountIdText.size(), ']'));
  }
  return std::nullopt;
}

/// Why the registry's file cannot be used stands in the failure, but not which file that is.
std::optional<std::string> AdviceForRegistry(const exc::exc_base_t& failure) {
  const auto* const system = dynamic_cast<const exc::win_sys_exc_t*>(&failure);
  if (system == nullptr)
    return std::nullopt;
  const std::string file = platform::CommonAppDataFolder() + "/Kelvo/registry.db";
  switch (system->Code()) {
    case platform::error::BadDatabase:
      return exc::FormatText(
          "The registry file cannot be read and was not changed: %1. Put a copy of it back, or move it away to start "
          "with an empty one.",
          file);
    case platform::error::RevisionMismatch:
      return exc::FormatText(
          "The registry file is of a newer version of KelvoNfsSvc and was not changed: %1. Start that version.", file);
    case platform::error::LockViolation:
      return exc::FormatText("Another process holds the registry file: %1. Start again when it has ended.", file);
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> AdviceForFailedStart(const std::exception& failure) {
  const auto* const known = dynamic_cast<const exc::exc_base_t*>(&failure);
  if (known == nullptr)
    return std::nullopt;
  auto advice = AdviceForBinding(*known);
  if (!advice)
    advice = AdviceForMounts(*known);
  return advice ? advice : AdviceForRegistry(*known);
}
