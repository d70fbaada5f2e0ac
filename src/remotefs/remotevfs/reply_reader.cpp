#include "remotefs/remotevfs/reply_reader.h"

#include "foundation/exc.h"

namespace remotevfs {
namespace {

std::uint64_t Number(std::span<const std::uint8_t> bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i)
    number |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
  return number;
}

}  // namespace

std::span<const std::uint8_t> ReplyReader::Take(std::size_t size) {
  if (size > left_.size())
    throw exc::runtime_exc_t("Invalid data stream");
  const std::span<const std::uint8_t> taken = left_.first(size);
  left_ = left_.subspan(size);
  return taken;
}

std::uint32_t ReplyReader::U32() {
  return static_cast<std::uint32_t>(Number(Take(sizeof(std::uint32_t))));
}

std::uint64_t ReplyReader::U64() {
  return Number(Take(sizeof(std::uint64_t)));
}

std::string_view ReplyReader::String() {
  const std::uint32_t length = U32();
  if (length == 0)
    return {};
  const std::span<const std::uint8_t> bytes = Take(length);
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace remotevfs
