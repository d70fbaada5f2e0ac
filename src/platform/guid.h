// The 16-byte identity of shares and mounts.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// 16 bytes in the order of the text form. Ordered by its bytes; a default one is the nil GUID.
struct GUID {
  std::array<std::uint8_t, 16> bytes{};

  auto operator<=>(const GUID&) const = default;
  bool IsNil() const { return *this == GUID{}; }
};

/// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}", lower case.
std::string GuidToText(const GUID& guid);

/// The GUID of a text in braces, either case; nothing for any other text.
std::optional<GUID> GuidFromText(std::string_view text);

/// A new random GUID (version 4) from the kernel's generator.
GUID NewGuid();

}  // namespace platform

using platform::GUID;
