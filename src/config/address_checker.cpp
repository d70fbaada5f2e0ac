#include "config/address_checker.h"

#include <netdb.h>
#include <sys/types.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

#include "config/address_family_checker.h"
#include "foundation/log.h"
#include "platform/error.h"
#include "platform/text.h"

namespace {

constexpr std::string_view UnsupportedFamily = "Unsupported address family %1 for address \"%2\"";

using addresses_ptr = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

bool IsFamilyUnsupported(int code) {
  return code == EAI_FAMILY || code == EAI_ADDRFAMILY;
}

/// Empty for what is no numeric address, which is told in the log.
addresses_ptr Resolve(const std::string& address, const std::string& entry) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_family = AF_UNSPEC;
  addrinfo* result = nullptr;
  // A zero byte would hide the rest of the text from the parser.
  const bool isWhole = address.find('\0') == std::string::npos;
  const int code = isWhole ? ::getaddrinfo(address.c_str(), nullptr, &hints, &result) : EAI_NONAME;
  if (code == 0)
    return {result, &::freeaddrinfo};

  const platform::error_t lastError = platform::LastError();
  if (IsFamilyUnsupported(code)) {
    g_nfs_log.Warning(UnsupportedFamily, hints.ai_family, entry);
  } else {
    g_nfs_log.Warning("Error while parsing address \"%1\": %2", entry,
                      code == EAI_SYSTEM ? platform::ErrorText(lastError) : std::string(::gai_strerror(code)));
  }
  return {nullptr, &::freeaddrinfo};
}

}  // namespace

CAddressChecker::CAddressChecker(const std::string& list) {
  CAddressChecker::AddAddresses(list);
}

CAddressChecker::entries_t CAddressChecker::Split(std::string_view list) {
  entries_t entries;
  while (!list.empty()) {
    const std::string_view entry = list.substr(0, list.find(';'));
    list.remove_prefix(std::min(list.size(), entry.size() + 1));
    if (entry.size() > 1)
      entries.emplace(entry);
  }
  return entries;
}

void CAddressChecker::AddAddresses(const std::string& list) {
  const std::lock_guard<std::recursive_mutex> lock(lock_);
  addresses_.merge(Split(list));
  Rebuild();
}

void CAddressChecker::RemoveAddresses(const std::string& list) {
  const std::lock_guard<std::recursive_mutex> lock(lock_);
  for (const std::string& entry : Split(list)) {
    addresses_.erase(entry);
  }
  Rebuild();
}

void CAddressChecker::Rebuild() {
  // Nothing is taken out of the family checkers: a client that was let in is not shut out before the next start.
  const std::lock_guard<std::recursive_mutex> lock(lock_);
  for (const std::string& entry : addresses_) {
    AddEntry(entry);
  }
}

void CAddressChecker::AddEntry(const std::string& entry) {
  const std::size_t slash = entry.find('/');
  std::uint32_t bits = 0;
  if (slash != std::string::npos) {
    const std::optional<std::uint32_t> given = platform::ParseU32(std::string_view(entry).substr(slash + 1));
    if (!given)
      return;
    bits = *given;
  }
  const addresses_ptr addresses = Resolve(entry.substr(0, slash), entry);
  if (!addresses)
    return;

  const int family = addresses->ai_family;
  auto checker = familyCheckers_.find(family);
  if (checker == familyCheckers_.end()) {
    if (family != AF_INET) {
      g_nfs_log.Warning(UnsupportedFamily, family, entry);
      return;
    }
    checker = familyCheckers_.emplace(family, boost::make_shared<CIPv4AddressFamilyChecker>()).first;
  }
  checker->second->AddAddress(addresses->ai_addr, addresses->ai_addrlen, bits);
  g_nfs_log.Info("Allow connections from \"%1\"", entry);
}

bool CAddressChecker::IsAllowed(const sockaddr* address, socklen_t length) {
  if (length < sizeof(address->sa_family))
    return false;
  sa_family_t family = AF_UNSPEC;
  std::memcpy(&family, address, sizeof(family));
  const std::lock_guard<std::recursive_mutex> lock(lock_);
  const auto checker = familyCheckers_.find(family);
  return checker != familyCheckers_.end() && checker->second->IsAllowed(address, length);
}

bool CAddressChecker::IsEmpty() {
  const std::lock_guard<std::recursive_mutex> lock(lock_);
  return addresses_.empty();
}

std::string CAddressChecker::ToString() {
  const std::lock_guard<std::recursive_mutex> lock(lock_);
  std::string list;
  for (const std::string& entry : addresses_) {
    if (!list.empty())
      list += ';';
    list += entry;
  }
  return list;
}
