// An interface that shows what reached it.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "management/dcerpc/rpc_interface.h"

namespace test {

/// Operations by number: 0 echoes the stub; 1 throws the fault BadStubData; 2 throws another exception; 3 gives the
/// caller as text; 4 waits until it is let go and gives nothing; no others. Any thread.
class FakeInterface : public dcerpc::IRpcInterface {
 public:
  static constexpr std::uint16_t Echo = 0;
  static constexpr std::uint16_t Fault = 1;
  static constexpr std::uint16_t Throw = 2;
  static constexpr std::uint16_t WhoAmI = 3;
  static constexpr std::uint16_t Wait = 4;

  struct Seen {
    std::uint16_t opnum = 0;
    dcerpc::bytes_t stub;
    dcerpc::byte_order_t order = dcerpc::byte_order_t::Little;
    dcerpc::SCaller caller;
  };

  static dcerpc::SSyntaxId Identity() {
    return {{{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff, 0x01}},
            0x00020001};  // 1.2
  }

  const dcerpc::SSyntaxId& Id() const override { return id_; }

  dcerpc::bytes_t Call(std::uint16_t opnum, dcerpc::bytes_view_t stub, dcerpc::byte_order_t order,
                       const dcerpc::SCaller& caller) override {
    std::unique_lock lock(mutex_);
    seen_.push_back({opnum, {stub.begin(), stub.end()}, order, caller});
    switch (opnum) {
      case Echo:
        return {stub.begin(), stub.end()};
      case Fault:
        throw dcerpc::fault_exc_t("Bad stub.", dcerpc::fault::BadStubData);
      case Throw:
        throw std::runtime_error("Something else.");
      case WhoAmI: {
        const std::string text = caller.account + '|' + caller.principal + '|' +
                                 std::to_string(static_cast<int>(caller.level)) + '|' +
                                 (caller.authenticated ? "yes" : "no");
        return {text.begin(), text.end()};
      }
      case Wait:
        ++waiting_;
        mostWaiting_ = std::max(mostWaiting_, waiting_);
        changed_.notify_all();
        changed_.wait(lock, [this] { return released_; });
        --waiting_;
        return {};
      default:
        throw dcerpc::fault_exc_t("No such operation.", dcerpc::fault::OperationRange);
    }
  }

  std::vector<Seen> Calls() const {
    const std::lock_guard lock(mutex_);
    return seen_;
  }
  void WaitForCallers(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return waiting_ >= count; });
  }
  void Release() {
    const std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  /// The most calls of Wait at once.
  int MostWaiting() const {
    const std::lock_guard lock(mutex_);
    return mostWaiting_;
  }

 private:
  const dcerpc::SSyntaxId id_ = Identity();
  mutable std::mutex mutex_;  // Guards the rest.
  std::condition_variable changed_;
  std::vector<Seen> seen_;
  int waiting_ = 0;
  int mostWaiting_ = 0;
  bool released_ = false;
};

}  // namespace test
