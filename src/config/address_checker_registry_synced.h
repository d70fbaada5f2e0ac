// The service's list of allowed addresses.
#pragma once

#include <boost/shared_ptr.hpp>
#include <mutex>
#include <string>

#include "config/address_checker.h"
#include "config/reg_config_address_list.h"

/// Kept in the registry: read once, at construction, and written at each change. A change that cannot be stored holds
/// for the running service, and is told by an exception.
class CAddressCheckerRegistrySynced : public CAddressChecker {
 public:
  CAddressCheckerRegistrySynced();

  void AddAddresses(const std::string& list) override;
  void RemoveAddresses(const std::string& list) override;

 private:
  void Store();

  const boost::shared_ptr<CRegConfigAddressList> regValue_;
  /// Held for a whole change, so that the last list stored is the last one made. Nobody who asks waits for it.
  std::mutex storeLock_;
};
