// How much memory the requests take that are being put together.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <utility>

namespace dcerpc {

/// The bytes that all connections together may hold of requests that have not come to their end. Any thread.
class CStubBudget {
 public:
  explicit CStubBudget(std::size_t bytes) : left_(bytes) {}
  CStubBudget(const CStubBudget&) = delete;
  CStubBudget& operator=(const CStubBudget&) = delete;

  /// False, and nothing is taken, when so much is not left.
  bool Take(std::size_t bytes) {
    std::size_t left = left_.load(std::memory_order_relaxed);
    while (left >= bytes) {
      if (left_.compare_exchange_weak(left, left - bytes, std::memory_order_relaxed))
        return true;
    }
    return false;
  }
  void Give(std::size_t bytes) { left_.fetch_add(bytes, std::memory_order_relaxed); }
  std::size_t Left() const { return left_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::size_t> left_;
};

/// What one request has of the budget; goes back with it. One thread.
class CStubShare {
 public:
  explicit CStubShare(boost::shared_ptr<CStubBudget> budget) : budget_(std::move(budget)) {}
  CStubShare(const CStubShare&) = delete;
  CStubShare& operator=(const CStubShare&) = delete;
  CStubShare(CStubShare&& other) noexcept : budget_(std::move(other.budget_)), taken_(std::exchange(other.taken_, 0)) {}
  CStubShare& operator=(CStubShare&&) = delete;
  ~CStubShare() {
    if (budget_ != nullptr)
      budget_->Give(taken_);
  }

  /// False when the budget does not have so much more.
  bool Grow(std::size_t bytes) {
    if (!budget_->Take(bytes))
      return false;
    taken_ += bytes;
    return true;
  }

 private:
  boost::shared_ptr<CStubBudget> budget_;
  std::size_t taken_ = 0;
};

}  // namespace dcerpc
