// The lines that the process's log gets while a test runs.
#pragma once

#include <algorithm>
#include <boost/make_shared.hpp>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/log.h"
#include "foundation/log_file.h"

namespace test {

/// Takes the place of the process's log receiver while it lives; one at a time. Any thread may log.
class CapturedLog {
 public:
  struct Line {
    std::string level;  ///< "Info", "Warning" or "Error".
    std::string text;   ///< With its indentation.

    bool operator==(const Line&) const = default;
    friend void PrintTo(const Line& line, std::ostream* out) { *out << line.level << " [" << line.text << ']'; }
  };

  explicit CapturedLog(bool verbose = false) : receiver_(boost::make_shared<Receiver>()) {
    logging::TheLog().SetMode(logging::format_mode_t::Bare);
    logging::TheLog().SetVerbose(verbose);
    logging::TheLog().SetReceiver(receiver_);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;
  ~CapturedLog() {
    logging::TheLog().SetReceiver({});
    logging::TheLog().SetVerbose(false);
    logging::TheLog().SetMode(logging::format_mode_t::Normal);
  }

  std::vector<Line> Lines() const { return receiver_->Lines(); }
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (Line& line : Lines())
      texts.push_back(std::move(line.text));
    return texts;
  }
  /// The lines of one level.
  std::vector<std::string> Texts(std::string_view level) const {
    std::vector<std::string> texts;
    for (Line& line : Lines()) {
      if (line.level == level)
        texts.push_back(std::move(line.text));
    }
    return texts;
  }
  std::size_t Count(std::string_view text) const {
    const std::vector<std::string> texts = Texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
  }
  bool Has(std::string_view text) const { return Count(text) != 0; }
  void Clear() { receiver_->Clear(); }

 private:
  class Receiver : public logging::receiver::log_file_t {
   public:
    void Write(std::string_view line) override {
      constexpr std::size_t LevelWidth = 9;
      const std::string_view level = line.substr(0, line.find(' '));
      std::string_view text = line.substr(std::min(line.size(), LevelWidth));
      if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
      const std::lock_guard<std::mutex> guard(lock_);
      lines_.push_back({std::string(level), std::string(text)});
    }
    std::string GetPath() const override { return {}; }
    std::string GetName() const override { return "captured"; }
    std::uint64_t GetSize() const override { return 0; }
    void Compress(util::zip_writer_t&, const std::function<void()>&) override {}

    std::vector<Line> Lines() const {
      const std::lock_guard<std::mutex> guard(lock_);
      return lines_;
    }
    void Clear() {
      const std::lock_guard<std::mutex> guard(lock_);
      lines_.clear();
    }

   private:
    mutable std::mutex lock_;
    std::vector<Line> lines_;
  };

  const boost::shared_ptr<Receiver> receiver_;
};

}  // namespace test
