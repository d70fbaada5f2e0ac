#include "rpc/xdr_writer.h"

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <cstring>
#include <utility>

#include "foundation/exc.h"

namespace {

constexpr std::uint32_t LastFragmentBit = 0x80000000U;
constexpr std::uint32_t MaxInitialSize = 1U << 20;

std::atomic<std::uint32_t> g_initialSize{128};
std::atomic<std::uint32_t> g_lastXid{1};

void StoreWord(std::uint8_t* bytes, std::uint32_t value) noexcept {
  bytes[0] = static_cast<std::uint8_t>(value >> 24);
  bytes[1] = static_cast<std::uint8_t>(value >> 16);
  bytes[2] = static_cast<std::uint8_t>(value >> 8);
  bytes[3] = static_cast<std::uint8_t>(value);
}

constexpr std::size_t PaddingOf(std::size_t length) {
  return (4 - length % 4) % 4;
}

}  // namespace

void SetXdrBufInitialSize(std::uint32_t size) {
  g_initialSize.store(std::min(size, MaxInitialSize), std::memory_order_relaxed);
}

void CXDRWriter::Grow(std::size_t capacity) {
  if (buffer_ == nullptr) {
    const std::size_t initial = g_initialSize.load(std::memory_order_relaxed);
    buffer_ = boost::make_shared<io::byte_buffer_t>(std::max(capacity, initial));
    std::memset(buffer_->data(), 0, MarkSize);
    return;
  }
  if (capacity <= buffer_->size())
    return;
  const auto bigger = boost::make_shared<io::byte_buffer_t>(capacity);
  std::memcpy(bigger->data(), buffer_->data(), used_);
  buffer_ = bigger;
}

void CXDRWriter::Reserve(std::size_t moreBytes) {
  Grow(used_ + moreBytes);
}

std::uint8_t* CXDRWriter::Append(std::size_t length) {
  Grow(used_ + length);
  std::uint8_t* place = buffer_->data() + used_;
  used_ += length;
  return place;
}

void CXDRWriter::Data(const void* data, std::size_t length) {
  if (length == 0)
    return;
  std::memcpy(Append(length), data, length);
}

void CXDRWriter::UInt(std::uint32_t value) {
  StoreWord(Append(4), value);
}

void CXDRWriter::Bool(std::uint32_t value) {
  UInt((value & 0xFFU) != 0 ? 1 : 0);
}

void CXDRWriter::Padding(std::size_t dataLength) {
  const std::size_t length = PaddingOf(dataLength);
  if (length != 0)
    std::memset(Append(length), 0, length);
}

void CXDRWriter::VarLenData(const void* data, std::size_t length) {
  Grow(used_ + 4 + length + PaddingOf(length));
  UInt(static_cast<std::uint32_t>(length));
  Data(data, length);
  Padding(length);
}

void CXDRWriter::String(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  VarLenData(text.data(), text.size());
}

void CXDRWriter::Fixed8(const std::array<std::uint8_t, 8>& data) {
  Data(data.data(), data.size());
}

void CXDRWriter::SharedVarLenData(boost::shared_ptr<const io::byte_buffer_t> data, std::size_t length) {
  if (length != 0 && (data == nullptr || data->size() < length)) {
    throw exc::runtime_exc_t("Length of the data to be sent (%1) exceeds the size of the buffer (%2).", length,
                             data == nullptr ? std::size_t{0} : data->size());
  }
  UInt(static_cast<std::uint32_t>(length));
  if (length == 0)
    return;
  shared_.push_back({used_, std::move(data), length, {}});
  sharedBytes_ += length;
  Padding(length);
}

void CXDRWriter::PipedVarLenData(boost::shared_ptr<platform::kernel_pipe_t> pipe) {
  if (!takesPipes_)
    throw exc::runtime_exc_t("The data to be sent is out of reach.");
  const std::size_t length = pipe->Held();
  UInt(static_cast<std::uint32_t>(length));
  if (length == 0)
    return;
  shared_.push_back({used_, {}, length, std::move(pipe)});
  sharedBytes_ += length;
  Padding(length);
}

bool CXDRWriter::HasPipes() const noexcept {
  return std::ranges::any_of(shared_, [](const SShared& shared) { return shared.pipe != nullptr; });
}

void CXDRWriter::EmptyPipes() {
  for (SShared& shared : shared_) {
    if (shared.pipe == nullptr)
      continue;
    SXdrSegment segment{{}, 0, shared.length, shared.pipe};
    if (const platform::error_t error = BringIntoMemory(segment); error != platform::error::Success)
      throw exc::win_sys_exc_t("The data to be sent is out of reach.", error);
    shared.buffer = std::move(segment.buffer);
    shared.pipe = std::move(segment.pipe);
  }
}

platform::error_t BringIntoMemory(SXdrSegment& segment) noexcept {
  try {
    const auto buffer = boost::make_shared<io::byte_buffer_t>(segment.pipe->Held());
    std::size_t read = 0;
    const platform::error_t error = segment.pipe->Read(*buffer, read);
    if (error == platform::error::Success)
      segment = {buffer, 0, read, {}};
    return error;
  } catch (const std::bad_alloc&) {
    return platform::error::Success;
  }
}

void CXDRWriter::AcceptedReply() {
  for (const std::uint32_t word : {1U, 0U, 0U, 0U, 0U})
    UInt(word);
}

void CXDRWriter::UnavailableReply() {
  for (const std::uint32_t word : {1U, 0U, 3U, 0U, 0U})
    UInt(word);
}

void CXDRWriter::AccessDeniedReply() {
  constexpr std::uint32_t accessStatus = 13;
  AcceptedReply();
  UInt(accessStatus);
}

void CXDRWriter::PortmapCall(std::uint32_t procedure) {
  constexpr std::uint32_t call = 0;
  constexpr std::uint32_t rpcVersion = 2;
  constexpr std::uint32_t program = 100000;
  constexpr std::uint32_t version = 2;
  UInt(++g_lastXid);
  for (const std::uint32_t word : {call, rpcVersion, program, version, procedure, 0U, 0U, 0U, 0U})
    UInt(word);
}

std::uint32_t CXDRWriter::Mark(bool lastFragment) const {
  const std::size_t size = Used();
  if (size % 4 != 0 || size - MarkSize >= LastFragmentBit) {
    throw exc::runtime_exc_t("Invalid length of the XDR stream: \"%1\".", size);
  }
  return static_cast<std::uint32_t>(size - MarkSize) | (lastFragment ? LastFragmentBit : 0);
}

template <typename Visit>
void CXDRWriter::ForEachPiece(Visit&& visit) const {
  std::size_t done = 0;
  for (const SShared& shared : shared_) {
    visit(buffer_->data() + done, shared.position - done, nullptr);
    visit(shared.buffer == nullptr ? nullptr : shared.buffer->data(), shared.length, &shared);
    done = shared.position;
  }
  if (done < used_)
    visit(buffer_->data() + done, used_ - done, nullptr);
}

void CXDRWriter::Finish(io::byte_buffer_t& out, bool lastFragment) const {
  const std::uint32_t mark = Mark(lastFragment);
  out.resize(Used());
  if (buffer_ != nullptr) {
    std::uint8_t* place = out.data();
    ForEachPiece([&place](const std::uint8_t* bytes, std::size_t length, const void*) {
      std::memcpy(place, bytes, length);
      place += length;
    });
  }
  StoreWord(out.data(), mark);
}

std::vector<SXdrSegment> CXDRWriter::TakeSegments(bool lastFragment) {
  const std::uint32_t mark = Mark(lastFragment);
  Grow(used_);
  StoreWord(buffer_->data(), mark);
  std::vector<SXdrSegment> segments;
  segments.reserve(2 * shared_.size() + 1);
  ForEachPiece([&](const std::uint8_t* bytes, std::size_t length, const SShared* shared) {
    if (shared != nullptr) {
      segments.push_back({shared->buffer, 0, length, shared->pipe});
    } else {
      segments.push_back({buffer_, static_cast<std::size_t>(bytes - buffer_->data()), length, {}});
    }
  });
  buffer_.reset();
  used_ = MarkSize;
  shared_.clear();
  sharedBytes_ = 0;
  return segments;
}

void CXDRWriter::Send(io::io_dev_t& device, bool lastFragment) const {
  std::uint8_t mark[MarkSize];
  StoreWord(mark, Mark(lastFragment));
  device.Write(mark, MarkSize);
  if (buffer_ == nullptr)
    return;
  ForEachPiece([&device, isFirst = true](const std::uint8_t* bytes, std::size_t length, const void*) mutable {
    const std::size_t skip = isFirst ? MarkSize : 0;
    isFirst = false;
    if (length > skip)
      device.Write(bytes + skip, length - skip);
  });
}
