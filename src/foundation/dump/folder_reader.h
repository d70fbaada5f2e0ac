// Listing a folder without the heap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace crash {

/// The names in a folder, in the system's order, "." and ".." left out. One thread.
class folder_reader_t {
 public:
  /// Whether it could be opened tells IsOpen().
  explicit folder_reader_t(const char* path) noexcept;
  folder_reader_t(const folder_reader_t&) = delete;
  folder_reader_t& operator=(const folder_reader_t&) = delete;
  ~folder_reader_t();

  bool IsOpen() const noexcept { return descriptor_ >= 0; }
  int Descriptor() const noexcept { return descriptor_; }
  /// False at the end and after a failure. The name is good until the next call.
  bool Next(std::string_view& name) noexcept;
  /// The errno of what failed, the opening included; 0 for nothing.
  int Failure() const noexcept { return failure_; }

 private:
  const int descriptor_;
  int failure_ = 0;
  std::size_t used_ = 0;
  std::size_t filled_ = 0;
  alignas(8) char buffer_[4096];
};

/// The name as a number; false unless it is decimal digits without leading zeros, at most nine.
bool ParseNumber(std::string_view text, std::uint32_t& number) noexcept;

}  // namespace crash
