// Where dumps lie: their names, and how many are kept.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

#include "foundation/dump/text.h"

namespace crash {

/// Told of what happens to old dumps.
class old_dump_sink_t {
 public:
  virtual void Deleted(std::string_view path) noexcept = 0;
  virtual void NotDeleted(std::string_view path) noexcept = 0;
  virtual ~old_dump_sink_t() = default;
};

/// The dumps of one stem and extension in a folder: files named stem, number, ".", extension. Other files, also those
/// that were put there by hand under similar names, neither count nor go. After a crash, so without the heap.
class dump_folder_t {
 public:
  static constexpr std::uint32_t MaxDumps = 20;
  static constexpr std::uint32_t MaxNumber = 10000;

  /// The step that failed.
  enum class result_t { Ok, NoFolder, TooMany, NoName };

  /// The texts must outlive the object; the extension is without its point.
  dump_folder_t(const char* folder, std::string_view stem, std::string_view extension) noexcept
      : folder_(folder), stem_(stem), extension_(extension) {}

  /// Makes the folder if needed, deletes the oldest dumps until fewer than MaxDumps stand, and finds the path of the
  /// next one: one more than the highest number. On failure the texts are added.
  result_t NextPath(old_dump_sink_t& sink, text_t& path, failure_t& failure) const noexcept;

 private:
  struct dump_t {
    std::timespec time{};
    std::uint32_t number = 0;
  };
  struct found_t {
    std::uint32_t count = 0;
    std::uint32_t highest = 0;
    /// The oldest of those that are younger than the bound.
    bool hasOldest = false;
    dump_t oldest;
  };

  static bool IsOlder(const dump_t& left, const dump_t& right) noexcept;
  void PathOf(std::uint32_t number, text_t& path) const noexcept;
  bool NumberOf(std::string_view name, std::uint32_t& number) const noexcept;
  bool Create(failure_t& failure) const noexcept;
  bool Scan(const dump_t* bound, found_t& found, failure_t& failure) const noexcept;
  result_t CleanUp(old_dump_sink_t& sink, std::uint32_t& highest, failure_t& failure) const noexcept;

  const char* const folder_;
  const std::string_view stem_;
  const std::string_view extension_;
};

}  // namespace crash
