// How much memory may be taken for what is still coming.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <utility>

namespace io {

/// The bytes that all who share it may hold together. Any thread.
class byte_budget_t {
 public:
  explicit byte_budget_t(std::size_t bytes) : left_(bytes) {}
  byte_budget_t(const byte_budget_t&) = delete;
  byte_budget_t& operator=(const byte_budget_t&) = delete;

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

/// What one request or record has of the budget; goes back with it. One thread at a time.
class byte_share_t {
 public:
  explicit byte_share_t(boost::shared_ptr<byte_budget_t> budget) : budget_(std::move(budget)) {}
  byte_share_t(const byte_share_t&) = delete;
  byte_share_t& operator=(const byte_share_t&) = delete;
  byte_share_t(byte_share_t&& other) noexcept
      : budget_(std::move(other.budget_)), taken_(std::exchange(other.taken_, 0)) {}
  byte_share_t& operator=(byte_share_t&&) = delete;
  ~byte_share_t() {
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
  boost::shared_ptr<byte_budget_t> budget_;
  std::size_t taken_ = 0;
};

}  // namespace io
