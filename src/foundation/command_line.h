// The arguments of the process and the switches among them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The arguments, number zero included, as UTF-8. Constant after construction.
class CCommandLine {
 public:
  CCommandLine() = default;
  explicit CCommandLine(std::vector<std::string> arguments) : arguments_(std::move(arguments)) {}
  /// The argument vector of main(). Throws runtime_exc_t for one without entries.
  CCommandLine(int count, const char* const* arguments);

  /// The index of the first argument that equals the switch, without regard to ASCII case.
  std::optional<std::size_t> Find(std::string_view name) const;
  bool Has(std::string_view name) const { return Find(name).has_value(); }
  /// The argument that follows the switch; nothing when the switch is absent or the last argument.
  std::optional<std::string> ValueOf(std::string_view name) const;
  /// The same without the first argument that equals the switch and the value that follows it.
  CCommandLine Without(std::string_view name) const;
  const std::vector<std::string>& Arguments() const { return arguments_; }

 private:
  std::vector<std::string> arguments_;
};
