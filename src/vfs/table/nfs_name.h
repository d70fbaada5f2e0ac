// How names in a folder, and share aliases, compare.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// The FID that means no item. It is the parent of every share root and is never given to an item.
inline constexpr std::uint64_t InvalidFid = ~std::uint64_t{0};

/// Less than, equal and greater than zero, without regard to ASCII case: the order of the listing.
int CompareNames(std::string_view left, std::string_view right) noexcept;

struct SNameLess {
  using is_transparent = void;
  bool operator()(std::string_view left, std::string_view right) const noexcept {
    return CompareNames(left, right) < 0;
  }
};

/// The children of one folder; names that differ only by case are one entry.
using CNfsNameMap = std::map<std::string, std::uint64_t, SNameLess>;

/// The components of a path, split at '/' and '\', empty ones dropped. They refer to the path's text.
std::vector<std::string_view> SplitPath(std::string_view path);

/// True for aliases with the same components, in either spelling of separators and without regard to case.
bool AreAliasesEqual(std::string_view left, std::string_view right);
