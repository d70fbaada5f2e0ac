#include "config/address_checker_registry_synced.h"

#include <boost/make_shared.hpp>

#include "foundation/log.h"

CAddressCheckerRegistrySynced::CAddressCheckerRegistrySynced()
    : regValue_(boost::make_shared<CRegConfigAddressList>("AllowedAddresses")) {
  CAddressChecker::AddAddresses(regValue_->Load());
}

void CAddressCheckerRegistrySynced::AddAddresses(const std::string& list) {
  const std::lock_guard<std::mutex> lock(storeLock_);
  CAddressChecker::AddAddresses(list);
  Store();
}

void CAddressCheckerRegistrySynced::RemoveAddresses(const std::string& list) {
  const std::lock_guard<std::mutex> lock(storeLock_);
  CAddressChecker::RemoveAddresses(list);
  Store();
}

void CAddressCheckerRegistrySynced::Store() {
  const std::string text = ToString();
  regValue_->Save(text);
  g_nfs_log.Info("Allowed connections list changed to \"%1\"", text);
}
