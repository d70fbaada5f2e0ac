#include "vfs/table/nfs_name.h"

#include <algorithm>

bool AreAliasesEqual(std::string_view left, std::string_view right) {
  const auto leftComponents = platform::SplitPath(left);
  const auto rightComponents = platform::SplitPath(right);
  return std::equal(leftComponents.begin(), leftComponents.end(), rightComponents.begin(), rightComponents.end(),
                    platform::EqualIgnoringCase);
}
