#include "config/address_family_checker.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <limits>

namespace {

constexpr std::uint32_t AllOnes = std::numeric_limits<std::uint32_t>::max();

/// In network byte order. The address may lie at any alignment.
std::uint32_t AddressOf(const sockaddr* address) {
  sockaddr_in ipv4;
  std::memcpy(&ipv4, address, sizeof(ipv4));
  return ipv4.sin_addr.s_addr;
}

}  // namespace

bool CIPv4AddressFamilyChecker::IsAllowed(const sockaddr* address, socklen_t length) {
  return length >= sizeof(sockaddr_in) && IsCovered({AllOnes, AddressOf(address)});
}

void CIPv4AddressFamilyChecker::AddAddress(const sockaddr* address, socklen_t length, std::uint32_t bits) {
  if (length < sizeof(sockaddr_in))
    return;
  SNetwork entry{AllOnes, AddressOf(address)};
  if (bits != 0 && bits != 32) {
    entry.mask = htonl(AllOnes << ((32U - bits) % 32U));
    entry.network &= entry.mask;
  }
  if (!IsCovered(entry))
    networks_.insert(entry);
}

bool CIPv4AddressFamilyChecker::IsCovered(const SNetwork& entry) const {
  // A long list costs one search for each mask in it.
  for (auto known = networks_.begin(); known != networks_.end();) {
    const std::uint32_t mask = known->mask;
    if ((mask & entry.mask) == mask && networks_.contains({mask, entry.network & mask}))
      return true;
    known = networks_.upper_bound({mask, AllOnes});
  }
  return false;
}
