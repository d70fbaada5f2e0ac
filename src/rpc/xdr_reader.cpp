#include "rpc/xdr_reader.h"

#include <algorithm>
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

CXDRReader::CXDRReader(boost::shared_ptr<io::byte_buffer_t> record, boost::shared_ptr<platform::kernel_pipe_t> rest)
    : data_(std::move(record)), rest_(std::move(rest)) {}

std::span<std::uint8_t> CXDRReader::Record() {
  if (data_ == nullptr)
    return {};
  return {data_->data(), data_->size()};
}

std::size_t CXDRReader::Remaining() const {
  return InMemory() + (rest_ == nullptr ? 0 : rest_->Held());
}

void CXDRReader::Gather() {
  if (rest_ == nullptr)
    return;
  const boost::shared_ptr<platform::kernel_pipe_t> rest = std::move(rest_);
  const std::size_t before = data_->size();
  auto whole = boost::make_shared<io::byte_buffer_t>(before + rest->Held());
  std::ranges::copy(*data_, whole->begin());
  std::size_t read = 0;
  if (const platform::error_t failure = rest->Read(std::span(*whole).subspan(before), read);
      failure != platform::error::Success)
    throw exc::win_sys_exc_t("The rest of a record cannot be read", failure);
  ungathered_ = std::exchange(data_, std::move(whole));
}

std::span<const std::uint8_t> CXDRReader::GatherLastView() {
  Gather();
  if (lastViewSize_ == 0)
    return {};
  return std::span(*data_).subspan(lastViewAt_, lastViewSize_);
}

std::uint32_t CXDRReader::UInt() {
  if (Remaining() < 4)
    throw exc::win_sys_exc_t("Wrong SUNRPC format in UInt()", FormatErrorCode);
  Need(4);
  const std::uint32_t value = LoadWord(data_->data() + position_);
  position_ += 4;
  return value;
}

std::uint64_t CXDRReader::UInt64() {
  if (Remaining() < 8)
    throw exc::win_sys_exc_t("Wrong SUNRPC format in UInt64()", platform::LastError());
  Need(8);
  const std::uint8_t* bytes = data_->data() + position_;
  const std::uint64_t value = (static_cast<std::uint64_t>(LoadWord(bytes)) << 32) | LoadWord(bytes + 4);
  position_ += 8;
  return value;
}

/// The length of an opaque that is there; rounded up, too.
std::uint32_t CXDRReader::OpaqueLength() {
  const std::uint32_t length = UInt();
  if (length == 0)
    return 0;
  // Lengths above 0xFFFFFFFC wrap to 0 and pass the test. Such a record is no format error: it fails as the buffer that
  // it asks for would.
  const std::uint32_t rounded = (length + 3U) & ~3U;
  if (rounded > Remaining()) {
    throw exc::win_sys_exc_t("Wrong SUNRPC format in VarLenData()", platform::LastError());
  }
  if (length > Remaining())
    throw std::bad_alloc();
  return length;
}

std::span<const std::uint8_t> CXDRReader::View(std::uint32_t length) {
  if (length == 0)
    return {};
  const std::uint32_t rounded = (length + 3U) & ~3U;
  Need(rounded);
  const std::uint8_t* bytes = data_->data() + position_;
  position_ += rounded;
  return {bytes, length};
}

std::span<const std::uint8_t> CXDRReader::LastVarLenView() {
  const std::uint32_t length = OpaqueLength();
  lastViewAt_ = position_;
  lastViewSize_ = length;
  // Only what is the opaque's to its last byte can be handed on as such.
  if (length != Remaining())
    Gather();
  if (rest_ == nullptr)
    return View(length);
  const std::span<const std::uint8_t> inMemory = std::span(*data_).subspan(position_);
  position_ += static_cast<std::uint32_t>(inMemory.size());
  return inMemory;
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
  Need(out.size());
  std::memcpy(out.data(), data_->data() + position_, out.size());
  position_ += 8;
  return out;
}
