// Who may connect, and who may use an item: lists of IPv4 addresses.
#pragma once

#include <sys/socket.h>

#include <boost/shared_ptr.hpp>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

class IAddressFamilyChecker;

/// A list is text: numeric addresses, each optionally with `/` and a prefix length, separated by ";". Any thread may
/// call any operation.
class IAddressChecker {
 public:
  virtual ~IAddressChecker() = default;

  virtual void AddAddresses(const std::string& list) = 0;
  /// Takes the entries out of the list. An address that was once allowed stays so while the process lives.
  virtual void RemoveAddresses(const std::string& list) = 0;
  /// False for an address that is shorter than its family demands. Called once a connection and once an item.
  virtual bool IsAllowed(const sockaddr* address, socklen_t length) = 0;
  virtual bool IsEmpty() = 0;
  virtual std::string ToString() = 0;
};

/// The list held in memory. An entry that is no address is logged, allows nobody and stays in the list.
class CAddressChecker : public IAddressChecker {
 public:
  CAddressChecker() = default;
  explicit CAddressChecker(const std::string& list);
  CAddressChecker(const CAddressChecker&) = delete;
  CAddressChecker& operator=(const CAddressChecker&) = delete;

  void AddAddresses(const std::string& list) override;
  void RemoveAddresses(const std::string& list) override;
  bool IsAllowed(const sockaddr* address, socklen_t length) override;
  bool IsEmpty() override;
  std::string ToString() override;

 private:
  using entries_t = std::set<std::string, std::less<>>;

  static entries_t Split(std::string_view list);
  void Rebuild();
  void AddEntry(const std::string& entry);

  std::recursive_mutex lock_;  // Guards all below.
  entries_t addresses_;
  std::map<int, boost::shared_ptr<IAddressFamilyChecker>> familyCheckers_;
};

/// Lets everyone in.
class CAddressCheckerStub : public IAddressChecker {
 public:
  void AddAddresses(const std::string&) override {}
  void RemoveAddresses(const std::string&) override {}
  bool IsAllowed(const sockaddr*, socklen_t) override { return true; }
  bool IsEmpty() override { return true; }
  std::string ToString() override { return {}; }
};
