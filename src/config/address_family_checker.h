// The addresses of one family.
#pragma once

#include <sys/socket.h>

#include <compare>
#include <cstdint>
#include <set>

/// Has no lock: the checker that owns it holds its own around every call.
class IAddressFamilyChecker {
 public:
  virtual ~IAddressFamilyChecker() = default;

  virtual bool IsAllowed(const sockaddr* address, socklen_t length) = 0;
  /// bits: the prefix length; 0 means the address alone.
  virtual void AddAddress(const sockaddr* address, socklen_t length, std::uint32_t bits) = 0;
};

class CIPv4AddressFamilyChecker : public IAddressFamilyChecker {
 public:
  bool IsAllowed(const sockaddr* address, socklen_t length) override;
  /// A prefix length above 32 is taken modulo 32.
  void AddAddress(const sockaddr* address, socklen_t length, std::uint32_t bits) override;

 private:
  /// In network byte order. Networks of one mask lie together in the set.
  struct SNetwork {
    std::uint32_t mask;
    std::uint32_t network;

    auto operator<=>(const SNetwork&) const = default;
  };

  bool IsCovered(const SNetwork& entry) const;

  /// None is covered by one that was entered before it.
  std::set<SNetwork> networks_;
};
