#include <unistd.h>

#include "foundation/exc.h"
#include "foundation/log_file.h"
#include "foundation/write_all.h"

namespace logging::receiver {

namespace {

std::string Ruler() {
  return std::string(74, '/') + "\n";
}

}  // namespace

stdout_log_file_t::stdout_log_file_t() {
  stdout_log_file_t::Write(Ruler());
}

stdout_log_file_t::~stdout_log_file_t() {
  static_cast<void>(io::WriteAll(STDOUT_FILENO, Ruler()));
}

void stdout_log_file_t::Write(std::string_view line) {
  const platform::error_t error = io::WriteAll(STDOUT_FILENO, line);
  if (error != platform::error::Success)
    throw exc::win_sys_exc_t("Cannot write to standard output.", error);
}

std::string stdout_log_file_t::GetPath() const {
  return "stdout";
}

std::string stdout_log_file_t::GetName() const {
  return "stdout";
}

void stdout_log_file_t::Compress(util::zip_writer_t&, const std::function<void()>&) {}

}  // namespace logging::receiver
