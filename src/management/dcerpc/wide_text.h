// Between the UTF-8 of the process and the UTF-16 of the wire.
#pragma once

#include <string>
#include <string_view>

namespace dcerpc {

/// UTF-16 to UTF-8. Throws exc::win_sys_exc_t when a surrogate stands alone.
std::string NarrowText(std::u16string_view text);

/// UTF-8 to UTF-16. Throws exc::win_sys_exc_t for a text that is not UTF-8.
std::u16string WideText(std::string_view text);

/// UTF-8 to UTF-16 for texts that must arrive: U+FFFD stands for each byte that belongs to no character.
std::u16string WideTextOrReplaced(std::string_view text);

}  // namespace dcerpc
