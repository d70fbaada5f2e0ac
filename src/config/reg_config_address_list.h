// A stored address list.
#pragma once

#include <string>
#include <string_view>

/// Constant after construction; any thread.
class CRegConfigAddressList {
 public:
  explicit CRegConfigAddressList(std::string valueName);

  /// The stored list; empty after any failure.
  std::string Load() const;
  /// Throws when the list cannot be stored; does nothing when the key cannot be opened.
  void Save(std::string_view text) const;

 private:
  const std::string valueName_;
};
