#include "remotefs/remotevfs/vfs_items_array.h"

#include <string_view>

#include "foundation/log.h"
#include "platform/location.h"
#include "platform/text.h"

namespace remotevfs {
namespace {

/// A listing of nothing but bad names must not fill the log.
constexpr std::size_t MaxWarnings = 16;
constexpr std::size_t MaxLoggedName = 255;

/// A name as a line of the log can hold it, whatever its bytes are.
std::string Printable(std::string_view name) {
  constexpr std::string_view Digits = "0123456789ABCDEF";
  std::string text;
  for (const char c : name.substr(0, MaxLoggedName)) {
    if (c >= ' ' && c <= '~') {
      text += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text += {'\\', 'x', Digits[byte >> 4], Digits[byte & 15]};
    }
  }
  if (name.size() > MaxLoggedName)
    text += "...";
  return text;
}

}  // namespace

VfsItemsArray VfsItemsArray::Parse(ReplyReader& reader) {
  VfsItemsArray array;
  std::size_t skipped = 0;
  const std::uint32_t count = reader.U32();
  for (std::uint32_t i = 0; i < count; ++i) {
    VfsItem item;
    item.kind = reader.U32();
    item.size = reader.U64();
    const std::string_view name = reader.String();
    if (platform::IsPlainName(name) && platform::IsValidUtf8(name)) {
      item.name = name;
      array.Append(std::move(item));
    } else if (++skipped <= MaxWarnings) {
      g_nfs_log.Warning("An item of the backup is skipped, its name is not that of a file: [%1].", Printable(name));
    }
  }
  if (skipped > MaxWarnings)
    g_nfs_log.Warning("Items of the backup that were skipped without a line of their own: [%1].",
                      skipped - MaxWarnings);
  return array;
}

}  // namespace remotevfs
