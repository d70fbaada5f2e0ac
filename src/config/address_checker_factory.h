// Makes the address checkers of the service and of its items.
#pragma once

#include <boost/shared_ptr.hpp>
#include <string>

class IAddressChecker;

/// Constant after construction; any thread.
class CAddressCheckerFactory {
 public:
  explicit CAddressCheckerFactory(bool checkAddresses) noexcept : checkAddresses_(checkAddresses) {}

  /// The process's factory. Throws runtime_exc_t before one is installed.
  static boost::shared_ptr<CAddressCheckerFactory> Get();
  /// Replaces the process's factory; an empty pointer clears it.
  static void Install(boost::shared_ptr<CAddressCheckerFactory> factory);

  /// The service's own, which follows the registry.
  boost::shared_ptr<IAddressChecker> CreateGlobalChecker() const;
  /// Of one item; empty, and so for everyone, for an empty list.
  boost::shared_ptr<IAddressChecker> CreateItemChecker(const std::string& list) const;

 private:
  const bool checkAddresses_;
};
