#include "management/dcerpc/wide_text.h"

#include <algorithm>

#include "foundation/exc.h"
#include "platform/text.h"

namespace dcerpc {

std::string NarrowText(std::u16string_view text) {
  std::optional<std::string> narrow = platform::Utf8FromUtf16(text);
  if (!narrow)
    throw exc::win_sys_exc_t("Unicode string cannot be converted to UTF8 string.",
                             platform::error::NoUnicodeTranslation);
  return *std::move(narrow);
}

std::u16string WideText(std::string_view text) {
  std::optional<std::u16string> wide = platform::Utf16FromUtf8(text);
  if (!wide)
    throw exc::win_sys_exc_t(
        exc::FormatText("Multibyte UTF8 string cannot be converted to unicode string. Source string: [%1].", text),
        platform::error::NoUnicodeTranslation);
  return *std::move(wide);
}

std::u16string WideTextOrReplaced(std::string_view text) {
  if (auto wide = platform::Utf16FromUtf8(text))
    return *std::move(wide);
  constexpr std::size_t LongestCharacter = 4;
  std::u16string wide;
  wide.reserve(text.size());
  while (!text.empty()) {
    std::size_t length = 1;
    while (length <= std::min(LongestCharacter, text.size()) && !platform::IsValidUtf8(text.substr(0, length)))
      ++length;
    if (length > std::min(LongestCharacter, text.size())) {
      wide.push_back(u'\uFFFD');
      text.remove_prefix(1);
    } else {
      wide += *platform::Utf16FromUtf8(text.substr(0, length));
      text.remove_prefix(length);
    }
  }
  return wide;
}

}  // namespace dcerpc
