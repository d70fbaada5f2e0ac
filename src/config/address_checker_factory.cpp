#include "config/address_checker_factory.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <utility>

#include "config/address_checker.h"
#include "config/address_checker_registry_synced.h"
#include "foundation/exc.h"

namespace {

struct SHolder {
  std::mutex lock;  // Guards the one below.
  boost::shared_ptr<CAddressCheckerFactory> factory;
};

/// Never destroyed: a service that is left at the process's end withdraws its factory then.
SHolder& Holder() {
  static SHolder& holder = *new SHolder;
  return holder;
}

}  // namespace

boost::shared_ptr<CAddressCheckerFactory> CAddressCheckerFactory::Get() {
  SHolder& holder = Holder();
  const std::lock_guard<std::mutex> lock(holder.lock);
  if (!holder.factory)
    throw exc::runtime_exc_t("Address checker factory is not initialized.");
  return holder.factory;
}

void CAddressCheckerFactory::Install(boost::shared_ptr<CAddressCheckerFactory> factory) {
  SHolder& holder = Holder();
  const std::lock_guard<std::mutex> lock(holder.lock);
  holder.factory.swap(factory);
}

void CAddressCheckerFactory::Withdraw(const boost::shared_ptr<CAddressCheckerFactory>& factory) {
  SHolder& holder = Holder();
  const std::lock_guard<std::mutex> lock(holder.lock);
  if (holder.factory == factory)
    holder.factory.reset();
}

boost::shared_ptr<IAddressChecker> CAddressCheckerFactory::CreateGlobalChecker() const {
  if (!checkAddresses_)
    return boost::make_shared<CAddressCheckerStub>();
  return boost::make_shared<CAddressCheckerRegistrySynced>();
}

boost::shared_ptr<IAddressChecker> CAddressCheckerFactory::CreateItemChecker(const std::string& list) const {
  if (!checkAddresses_)
    return boost::make_shared<CAddressCheckerStub>();
  if (list.empty())
    return {};
  const std::lock_guard<std::mutex> lock(lock_);
  const auto known = itemCheckers_.find(list);
  if (known != itemCheckers_.end()) {
    if (boost::shared_ptr<IAddressChecker> shared = known->second.lock())
      return shared;
  }
  if (itemCheckers_.size() >= sweepSize_) {
    std::erase_if(itemCheckers_, [](const auto& entry) { return entry.second.expired(); });
    sweepSize_ = std::max<std::size_t>(64, 2 * itemCheckers_.size());
  }
  boost::shared_ptr<IAddressChecker> checker(new CAddressChecker(list));
  itemCheckers_[list] = checker;
  return checker;
}
