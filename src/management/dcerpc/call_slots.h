// How many calls run at once.
#pragma once

#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>

#include "management/dcerpc/rpc_interface.h"

namespace dcerpc {

/// Places for calls; who finds none waits. Any thread.
class CCallSlots {
 public:
  explicit CCallSlots(std::size_t count) : free_(count) {}
  CCallSlots(const CCallSlots&) = delete;
  CCallSlots& operator=(const CCallSlots&) = delete;

  /// False once closed, also for those that wait.
  bool Enter() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || free_ != 0; });
    if (closed_)
      return false;
    --free_;
    return true;
  }
  void Leave() {
    const std::lock_guard lock(mutex_);
    ++free_;
    changed_.notify_one();
  }
  /// For good. Calls that run are not touched.
  void Close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;  // Guards the rest.
  std::condition_variable changed_;
  std::size_t free_;
  bool closed_ = false;
};

/// An interface whose calls take a place each; without one they end with the fault ServerTooBusy.
class CLimitedInterface : public IRpcInterface {
 public:
  CLimitedInterface(boost::shared_ptr<IRpcInterface> inner, boost::shared_ptr<CCallSlots> slots)
      : inner_(std::move(inner)), slots_(std::move(slots)) {}

  const SSyntaxId& Id() const override { return inner_->Id(); }
  bytes_t Call(std::uint16_t opnum, bytes_view_t stub, byte_order_t order, const SCaller& caller) override {
    if (!slots_->Enter())
      throw fault_exc_t("The endpoint stops.", fault::ServerTooBusy);
    const place_t place{*slots_};
    return inner_->Call(opnum, stub, order, caller);
  }

 private:
  struct place_t {
    CCallSlots& slots;
    explicit place_t(CCallSlots& of) : slots(of) {}
    place_t(const place_t&) = delete;
    place_t& operator=(const place_t&) = delete;
    ~place_t() { slots.Leave(); }
  };

  const boost::shared_ptr<IRpcInterface> inner_;
  const boost::shared_ptr<CCallSlots> slots_;
};

}  // namespace dcerpc
