// How names in a folder, and share aliases, compare.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "platform/text.h"

/// The FID that means no item. It is the parent of every share root and is never given to an item.
inline constexpr std::uint64_t InvalidFid = ~std::uint64_t{0};

/// The children of one folder; names that differ only by case are one entry.
using CNfsNameMap = std::map<std::string, std::uint64_t, platform::less_ignoring_case_t>;

/// True for aliases with the same components, in either spelling of separators and without regard to case.
bool AreAliasesEqual(std::string_view left, std::string_view right);
