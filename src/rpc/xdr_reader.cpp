#include "rpc/xdr_reader.h"

#include <boost/make_shared.hpp>
#include <cstring>
#include <new>
#include <utility>

#include "foundation/exc.h"
#include "platform/error.h"

namespace {

/// E_FAIL: the code of a record that ends inside a word, whatever the thread's last error is.
constexpr platform::error_t FormatErrorCode = 0x80004005;

std::uint32_t LoadWord(const std::uint8_t* bytes) noexcept {
  return (static_cast<std::uint32_t>(bytes[0]) << 24) | (static_cast<std::uint32_t>(bytes[1]) << 16) |
         (static_cast<std::uint32_t>(bytes[2]) << 8) | static_cast<std::uint32_t>(bytes[3]);
}

}  // namespace

CXDRReader::CXDRReader(std::size_t size) : data_(boost::make_shared<io::byte_buffer_t>(size)) {}

CXDRReader::CXDRReader(boost::shared_ptr<io::byte_buffer_t> record) : data_(std::move(record)) {}

std::span<std::uint8_t> CXDRReader::Record() {
  if (data_ == nullptr)
    return {};
  return {data_->data(), data_->size()};
}

std::size_t CXDRReader::Remaining() const {
  return data_ == nullptr ? 0 : data_->size() - position_;
}

std::uint32_t CXDRReader::UInt() {
  if (Remaining() < 4)
    throw exc::win_sys_exc_t("Wrong SUNRPC format in UInt()", FormatErrorCode);
  const std::uint32_t value = LoadWord(data_->data() + position_);
  position_ += 4;
  return value;
}

std::uint64_t CXDRReader::UInt64() {
  if (Remaining() < 8)
    throw exc::win_sys_exc_t("Wrong SUNRPC format in UInt64()", platform::LastError());
  const std::uint8_t* bytes = data_->data() + position_;
  const std::uint64_t value = (static_cast<std::uint64_t>(LoadWord(bytes)) << 32) | LoadWord(bytes + 4);
  position_ += 8;
  return value;
}

std::span<const std::uint8_t> CXDRReader::VarLenView() {
  const std::uint32_t length = UInt();
  if (length == 0)
    return {};
  // Lengths above 0xFFFFFFFC wrap to 0 and pass the test. Such a record is no format error: it fails as the buffer that
  // it asks for would.
  const std::uint32_t rounded = (length + 3U) & ~3U;
  if (rounded > Remaining()) {
    throw exc::win_sys_exc_t("Wrong SUNRPC format in VarLenData()", platform::LastError());
  }
  if (length > Remaining())
    throw std::bad_alloc();
  const std::uint8_t* bytes = data_->data() + position_;
  position_ += rounded;
  return {bytes, length};
}

void CXDRReader::VarLenData(io::byte_buffer_t& out) {
  const std::span<const std::uint8_t> view = VarLenView();
  if (view.empty())
    return;
  out.resize(view.size());
  std::memcpy(out.data(), view.data(), view.size());
}

std::string CXDRReader::String() {
  const std::span<const std::uint8_t> view = VarLenView();
  return std::string(view.begin(), view.end());
}

std::array<std::uint8_t, 8> CXDRReader::Fixed8() {
  std::array<std::uint8_t, 8> out{};
  if (Remaining() < out.size()) {
    throw exc::runtime_exc_t(
        "The size of the requested fixed length binary data (%1) exceeds the length of unprocessed SUN RPC frame (%2).",
        out.size(), Remaining());
  }
  std::memcpy(out.data(), data_->data() + position_, out.size());
  position_ += 8;
  return out;
}
