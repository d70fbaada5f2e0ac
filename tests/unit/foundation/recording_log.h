// A log of a test's own, whose lines the test reads.
#pragma once

#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "foundation/log_file.h"

namespace test {

class RecordingReceiver : public logging::receiver::log_file_t {
 public:
  void Write(std::string_view line) override {
    const std::lock_guard<std::mutex> guard(lock_);
    if (failing_)
      throw exc::runtime_exc_t("The disk is full.");
    lines_.emplace_back(line);
  }
  std::string GetPath() const override { return "recorded.log"; }
  std::string GetName() const override { return "recorded"; }
  std::uint64_t GetSize() const override { return 0; }
  void Compress(util::zip_writer_t&, const std::function<void()>&) override {}

  void SetFailing(bool failing) {
    const std::lock_guard<std::mutex> guard(lock_);
    failing_ = failing;
  }
  std::vector<std::string> Lines() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }

 private:
  mutable std::mutex lock_;
  bool failing_ = false;
  std::vector<std::string> lines_;
};

/// The lines have neither time nor thread: they begin with the level word.
class RecordingLog {
 public:
  explicit RecordingLog(logging::format_mode_t mode = logging::format_mode_t::Bare)
      : receiver(boost::make_shared<RecordingReceiver>()) {
    log.SetMode(mode);
    log.SetReceiver(receiver);
  }

  std::vector<std::string> Lines() const { return receiver->Lines(); }

  logging::log_t log;
  boost::shared_ptr<RecordingReceiver> receiver;
  logging::log_handle_t handle{"", log};
};

}  // namespace test
