#include "foundation/zip_writer.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <utility>

#include "foundation/exc.h"

namespace util {

namespace {

constexpr unsigned LargestStep = 1U << 30;

}  // namespace

zip_writer_t::zip_writer_t(std::string path) : path_(std::move(path)) {
  const int descriptor = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor >= 0) {
    // The fastest level: whoever logs waits meanwhile.
    file_ = ::gzdopen(descriptor, "wb1");
    if (file_ == nullptr)
      ::close(descriptor);
  }
  if (file_ == nullptr)
    throw exc::runtime_exc_t("Failed to open GZ archive [%1].", path_);
}

zip_writer_t::~zip_writer_t() {
  if (file_ != nullptr)
    ::gzclose(file_);
}

void zip_writer_t::Add(const void* data, std::size_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  while (length > 0) {
    const auto step = static_cast<unsigned>(std::min<std::size_t>(length, LargestStep));
    if (file_ == nullptr || ::gzwrite(file_, bytes, step) != static_cast<int>(step)) {
      throw exc::runtime_exc_t("Cannot add data to the GZ archive [%1].", path_);
    }
    bytes += step;
    length -= step;
  }
}

void zip_writer_t::Close() {
  if (file_ == nullptr)
    return;
  const int result = ::gzclose(std::exchange(file_, nullptr));
  if (result != Z_OK) {
    exc::runtime_exc_t failure("Error code: %1", result);
    failure.AddMessage(exc::FormatText("Cannot close GZ archive [%1].", path_));
    throw failure;
  }
}

}  // namespace util
