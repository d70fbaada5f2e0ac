// What the fuzz targets share. A target is a function LLVMFuzzerTestOneInput; a finding is a sanitizer's report, an
// exception that leaves it, or Require.
#pragma once

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "foundation/log_file.h"

namespace fuzz {

using bytes_t = std::vector<std::uint8_t>;
using bytes_view_t = std::span<const std::uint8_t>;

/// Ends the run with a finding unless the condition holds.
inline void Require(bool holds, const char* what) {
  if (holds)
    return;
  std::fprintf(stderr, "ERROR: what must hold does not: %s\n", what);
  std::abort();
}

/// Takes an input apart from the front; past its end everything is 0 or empty.
class CInput {
 public:
  CInput(const std::uint8_t* data, std::size_t size) : left_(data, size) {}

  std::uint8_t Byte() {
    const bytes_view_t taken = Take(1);
    return taken.empty() ? std::uint8_t{0} : taken.front();
  }
  /// Little-endian.
  std::uint16_t Word() {
    const std::uint8_t low = Byte();
    return static_cast<std::uint16_t>(Byte() << 8 | low);
  }
  /// At most this many bytes.
  bytes_view_t Take(std::size_t count) {
    const bytes_view_t taken = left_.first(std::min(count, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  bytes_view_t Rest() { return Take(left_.size()); }
  /// The next bytes, without taking them.
  bytes_view_t Peek() const { return left_; }
  bool IsEmpty() const { return left_.empty(); }

 private:
  bytes_view_t left_;
};

inline std::string TextOf(bytes_view_t bytes) {
  return {bytes.begin(), bytes.end()};
}

/// Runs what may refuse its input with one of the product's exceptions or one of the standard library's; anything else
/// leaves it and is a finding. True when nothing was thrown.
inline bool Try(const std::function<void()>& run) {
  try {
    run();
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

/// Lets what targets store lie in memory, where the system has a place there. Before the first temporary folder.
inline void StoreInMemory() {
  if (std::filesystem::is_directory("/dev/shm"))
    ::setenv("TMPDIR", "/dev/shm", 0);
}

/// Makes the process's log format every line, and drops it then. Call it once.
inline void DropLog() {
  class CDroppingLog : public logging::receiver::log_file_t {
   public:
    void Write(std::string_view) override {}
    std::string GetPath() const override { return {}; }
    std::string GetName() const override { return {}; }
    std::uint64_t GetSize() const override { return 0; }
    void Compress(util::zip_writer_t&, const std::function<void()>&) override {}
  };
  logging::TheLog().SetReceiver(boost::make_shared<CDroppingLog>());
  logging::TheLog().SetVerbose(true);
}

}  // namespace fuzz

/// Called once before the first input.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
/// Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
