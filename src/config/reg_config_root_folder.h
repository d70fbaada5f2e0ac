// The stored host folder under which all shares lie.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

/// Any thread.
class CRegConfigRootFolder {
 public:
  static constexpr std::string_view DefaultFolder = "%ALLUSERSPROFILE%\\Kelvo\\Backup\\NfsDatastore";

  /// The default, and what is stored when `load` is set. Throws as Load does.
  explicit CRegConfigRootFolder(bool load);

  /// Holds the stored text, without blanks at its ends and without a separator at its end, and returns true; holds the
  /// default and returns false when there is no such text. Throws when the registry cannot be read.
  bool Load();
  /// Stores the held text as it is. Throws when it cannot be stored.
  void Save() const;

  /// The held text with environment variables expanded and `/` between its components.
  std::string Get() const;
  /// Holds a text as it is; the registry follows with Save.
  void Set(std::string text);

 private:
  mutable std::mutex lock_;  // Guards the one below.
  std::string text_{DefaultFolder};
};

/// The text without blanks, tabs and line ends at both ends and without one separator at its end, which stays when
/// nothing but it or a drive (`X:\`) would be left.
std::string_view TrimRootFolder(std::string_view text) noexcept;
