// Writers of files of backups, who remember what was answered while services and agents die.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "integration/support/wire_fixture.h"

namespace test {

inline constexpr std::size_t BlockSize = 4096;

inline std::string BlockOf(std::size_t block, std::uint32_t number) {
  std::string data;
  while (data.size() < BlockSize)
    data += std::to_string(block) + ":" + std::to_string(number) + ";";
  return data.substr(0, BlockSize);
}

/// Writes block after block of a part of a file that is its own, or so many at once, again and again with rising
/// numbers, and remembers what was answered. Calls that fail and connections that end are what it lives with.
class CWriter {
 public:
  CWriter(const bytes_t& handle, std::size_t firstBlock, std::size_t blocks, unsigned seed, std::size_t atOnce = 1)
      : handle_(handle), firstBlock_(firstBlock), blocks_(blocks), atOnce_(atOnce), random_(seed), thread_([this] {
          Run();
        }) {}
  CWriter(const CWriter&) = delete;
  CWriter& operator=(const CWriter&) = delete;
  ~CWriter() { Stop(); }

  void Stop() {
    stop_ = true;
    if (thread_.joinable())
      thread_.join();
  }
  std::size_t Answered() const { return answered_; }
  std::size_t Failed() const { return failed_; }

  /// After Stop. A block holds the last number that was answered, or one that was tried after it.
  void Check(CNfsClient& client, const std::string& source) const {
    for (const auto& [block, state] : written_) {
      const SReadResult read = client.Read(handle_, block * BlockSize, BlockSize);
      ASSERT_EQ(read.status, Ok);
      std::vector<std::string> allowed;
      allowed.push_back(state.answered ? BlockOf(block, *state.answered) : source.substr(block * BlockSize, BlockSize));
      for (const std::uint32_t number : state.unanswered)
        allowed.push_back(BlockOf(block, number));
      EXPECT_NE(std::find(allowed.begin(), allowed.end(), read.data), allowed.end())
          << "block " << block << " holds " << read.data.substr(0, 20) << " and was answered "
          << state.answered.value_or(0) << ", unanswered since: " << state.unanswered.size();
    }
  }

 private:
  struct SState {
    std::optional<std::uint32_t> answered;
    std::vector<std::uint32_t> unanswered;  ///< Tried after that; whether they are there is not known.
  };

  void Run() {
    std::unique_ptr<CNfsClient> client;
    while (!stop_) {
      const std::size_t first = firstBlock_ + random_() % (blocks_ - atOnce_ + 1);
      const std::uint32_t number = ++number_;
      std::string data;
      for (std::size_t block = first; block < first + atOnce_; ++block) {
        written_[block].unanswered.push_back(number);
        data += BlockOf(block, number);
      }
      try {
        if (!client)
          client = std::make_unique<CNfsClient>();
        if (client->Write(handle_, first * BlockSize, data) == Ok) {
          for (std::size_t block = first; block < first + atOnce_; ++block)
            written_[block] = {number, {}};
          ++answered_;
          continue;
        }
      } catch (const std::exception&) {
        client.reset();
      }
      ++failed_;
      std::this_thread::sleep_for(5ms);
    }
  }

  const bytes_t handle_;
  const std::size_t firstBlock_;
  const std::size_t blocks_;
  const std::size_t atOnce_;
  std::mt19937 random_;
  std::uint32_t number_ = 0;
  std::map<std::size_t, SState> written_;
  std::atomic<bool> stop_ = false;
  std::atomic<std::size_t> answered_ = 0;
  std::atomic<std::size_t> failed_ = 0;
  std::thread thread_;
};

using writers_t = std::vector<std::unique_ptr<CWriter>>;

/// Two for each file of so many blocks, a half of it each: one writes block by block, the other so many at once.
/// Random: an unsigned number at each call.
template <typename Random>
writers_t StartWriters(const std::vector<bytes_t>& files, std::size_t blocks, std::size_t atOnce, Random&& random) {
  writers_t writers;
  for (const bytes_t& file : files) {
    for (const std::size_t part : {0U, 1U}) {
      writers.push_back(
          std::make_unique<CWriter>(file, part * blocks / 2, blocks / 2, random(), part == 0 ? 1 : atOnce));
    }
  }
  return writers;
}

/// Some writes must have failed, or nothing was shown.
inline void StopAfterFailures(const writers_t& writers) {
  std::size_t answered = 0;
  std::size_t failed = 0;
  for (const auto& writer : writers) {
    writer->Stop();
    answered += writer->Answered();
    failed += writer->Failed();
  }
  std::printf("%zu writes were answered, %zu were not\n", answered, failed);
  EXPECT_GT(failed, 0U);
}

/// Waits until every writer has got so many answers more.
inline void WaitForProgress(const writers_t& writers, std::size_t answers, std::chrono::milliseconds limit = 60s) {
  std::vector<std::size_t> goals;
  for (const auto& writer : writers)
    goals.push_back(writer->Answered() + answers);
  EXPECT_TRUE(WaitUntil(
      [&] {
        for (std::size_t i = 0; i < writers.size(); ++i) {
          if (writers[i]->Answered() < goals[i])
            return false;
        }
        return true;
      },
      limit));
}

}  // namespace test
