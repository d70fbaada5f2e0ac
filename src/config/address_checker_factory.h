// Makes the address checkers of the service and of its items.
#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

class IAddressChecker;

/// Any thread.
class CAddressCheckerFactory {
 public:
  explicit CAddressCheckerFactory(bool checkAddresses) noexcept : checkAddresses_(checkAddresses) {}

  /// The process's factory. Throws runtime_exc_t before one is installed.
  static boost::shared_ptr<CAddressCheckerFactory> Get();
  /// Replaces the process's factory; an empty pointer clears it.
  static void Install(boost::shared_ptr<CAddressCheckerFactory> factory);
  /// Clears the process's factory if it still is this one.
  static void Withdraw(const boost::shared_ptr<CAddressCheckerFactory>& factory);

  /// The service's own, which follows the registry.
  boost::shared_ptr<IAddressChecker> CreateGlobalChecker() const;
  /// Of one item; empty, and so for everyone, for an empty list. Items of equal lists share one while any of them
  /// lives: it is not to be changed.
  boost::shared_ptr<IAddressChecker> CreateItemChecker(const std::string& list) const;

 private:
  const bool checkAddresses_;

  mutable std::mutex lock_;  // Guards all below.
  mutable std::map<std::string, boost::weak_ptr<IAddressChecker>> itemCheckers_;
  mutable std::size_t sweepSize_ = 64;  ///< Of itemCheckers_: then those without items are dropped.
};
