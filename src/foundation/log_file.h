// What a log is written to.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace util {
class zip_writer_t;
}

namespace logging::receiver {

/// The abstract receiver. Called under the log's lock, one thread at a time; any operation may throw.
class log_file_t {
 public:
  /// Writes a finished line, its line end included.
  virtual void Write(std::string_view line) = 0;
  /// Writes finished lines, each by Write unless the receiver can do it at once. One that cannot be written costs no
  /// other; the last failure is thrown.
  virtual void WriteMany(std::string_view lines);
  virtual std::string GetPath() const = 0;
  /// A label.
  virtual std::string GetName() const = 0;
  /// Bytes; 0 for what has no size.
  virtual std::uint64_t GetSize() const = 0;
  /// Copies everything written so far into the writer, calls the completion, and empties the file. A completion that
  /// throws leaves the file as it is. What has no size does nothing.
  virtual void Compress(util::zip_writer_t& writer, const std::function<void()>& completion) = 0;
  virtual ~log_file_t() = default;
};

/// Writes to standard output, between two lines of "/".
class stdout_log_file_t : public log_file_t {
 public:
  /// Throws win_sys_exc_t when standard output cannot be written.
  stdout_log_file_t();
  ~stdout_log_file_t() override;

  void Write(std::string_view line) override;
  std::string GetPath() const override;
  std::string GetName() const override;
  std::uint64_t GetSize() const override { return 0; }
  void Compress(util::zip_writer_t& writer, const std::function<void()>& completion) override;
};

}  // namespace logging::receiver
