// The addresses of one family.
#pragma once

#include <sys/socket.h>

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
  /// In network byte order.
  struct SNetwork {
    std::uint32_t network;
    std::uint32_t mask;

    /// Networks that overlap are equal: what is covered already is not entered again.
    bool operator<(const SNetwork& other) const noexcept {
      return (network & mask & other.mask) < (other.network & mask & other.mask);
    }
  };

  std::set<SNetwork> networks_;
};
