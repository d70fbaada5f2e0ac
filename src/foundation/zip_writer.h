// Writing gzip files.
#pragma once

#include <cstddef>
#include <string>

struct gzFile_s;

namespace util {

/// One gzip file being written, mode 0600. One thread at a time.
class zip_writer_t {
 public:
  /// Creates or empties the file. Throws runtime_exc_t "Failed to open GZ archive [%1].".
  explicit zip_writer_t(std::string path);
  zip_writer_t(const zip_writer_t&) = delete;
  zip_writer_t& operator=(const zip_writer_t&) = delete;
  /// Closes what was not closed, without a word.
  ~zip_writer_t();

  /// Throws runtime_exc_t "Cannot add data to the GZ archive [%1].".
  void Add(const void* data, std::size_t length);
  /// Writes the end of the archive; the file is complete only after it. Throws runtime_exc_t
  /// "Cannot close GZ archive [%1].". A second call does nothing.
  void Close();
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
  gzFile_s* file_ = nullptr;
};

}  // namespace util
