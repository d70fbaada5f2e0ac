// A mixed load that goes on, and what the service has of threads, descriptors and memory meanwhile.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <random>

#include "load/load_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace test;

/// A client with a folder of its own, which does what guests do, in any order, and knows what it must find.
class CGuest {
 public:
  CGuest(const bytes_t& root, unsigned number) : random_(number), client_(std::make_unique<CNfsClient>()) {
    EXPECT_EQ(client_->MkDir(root, "guest" + std::to_string(number), &folder_), Ok);
  }

  void Step() {
    const unsigned file = Below(Files);
    const std::string name = "file" + std::to_string(file);
    switch (Below(10)) {
      case 0:
        EXPECT_EQ(client_->Create(folder_, name), Ok);
        sizes_[file] = 0;
        break;
      case 1:
        client_->Remove(folder_, name);
        sizes_[file] = Gone;
        break;
      case 2: {
        const unsigned target = Below(Files);
        if (sizes_[file] == Gone || target == file)
          break;
        EXPECT_EQ(client_->Rename(folder_, name, folder_, "file" + std::to_string(target)), Ok);
        sizes_[target] = sizes_[file];
        sizes_[file] = Gone;
        break;
      }
      case 3:
        EXPECT_EQ(client_->List(folder_).size(), Files - static_cast<unsigned>(std::ranges::count(sizes_, Gone)));
        break;
      case 4:
        if (Below(10) == 0) {
          client_ = std::make_unique<CNfsClient>();
          ++reconnections_;
        }
        break;
      case 5:
      case 6:
        WriteSome(file, name);
        break;
      default:
        ReadAll(file, name);
    }
  }
  /// Any thread.
  std::size_t Reconnections() const { return reconnections_; }

 private:
  static constexpr unsigned Files = 30;
  static constexpr std::size_t Gone = ~std::size_t{0};

  unsigned Below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  void WriteSome(unsigned file, const std::string& name) {
    bytes_t handle;
    if (client_->Lookup(folder_, name, &handle) != Ok) {
      EXPECT_EQ(sizes_[file], Gone);
      return;
    }
    const std::size_t length = 1 + Below(100000);
    EXPECT_EQ(client_->Write(handle, 0, std::string(length, static_cast<char>('a' + file % 26))), Ok);
    sizes_[file] = std::max(sizes_[file], length);
  }
  void ReadAll(unsigned file, const std::string& name) {
    bytes_t handle;
    if (client_->Lookup(folder_, name, &handle) != Ok) {
      EXPECT_EQ(sizes_[file], Gone);
      return;
    }
    EXPECT_EQ(client_->Read(handle, 0, 131072).data.size(), sizes_[file]);
  }

  std::minstd_rand random_;
  std::unique_ptr<CNfsClient> client_;
  bytes_t folder_;
  std::atomic<std::size_t> reconnections_{0};
  std::vector<std::size_t> sizes_ = std::vector<std::size_t>(Files, Gone);
};

#ifdef __SANITIZE_ADDRESS__
/// What AddressSanitizer keeps of each thread that has ended, bytes: a program that does nothing but start and join
/// 200,000 threads, with the options below, grows by so much for each after the first 25,000.
constexpr std::size_t KeptOfThread = 187;
#else
constexpr std::size_t KeptOfThread = 0;
#endif

class LoadMixedTest : public CLoadTest {
 protected:
  void SetUp() override {
    // What AddressSanitizer holds back of freed memory, 256 MiB before it takes it back, would pass for growth.
    const char* const options = std::getenv("ASAN_OPTIONS");
    const std::string before = options == nullptr ? "" : std::string(options) + ":";
    const ScopedEnvironment small("ASAN_OPTIONS", before + "quarantine_size_mb=8:thread_local_quarantine_size_kb=64");
    CLoadTest::SetUp();
  }
  /// What the service has besides what is kept of the threads of connections that are over.
  SFootprint OwnFootprint(const std::deque<CGuest>& guests) {
    constexpr std::size_t ThreadsOfConnection = 3;
    SFootprint footprint = Footprint();
    std::size_t ended = 0;
    for (const CGuest& guest : guests) {
      ended += guest.Reconnections() * (IsSync(GetParam()) ? ThreadsOfConnection : 0);
    }
    footprint.residentKiB -= std::min(footprint.residentKiB, ended * KeptOfThread / 1024);
    return footprint;
  }
};
KELVO_WIRE_SUITE(LoadMixedTest);

/// KELVO_LOAD_SECONDS=3600 is the campaign; the first minute of it, or the first half of a short run, is not counted.
TEST_P(LoadMixedTest, NothingGrowsAfterTheFirstMinute) {
  const std::chrono::seconds length(Setting("KELVO_LOAD_SECONDS", 4));
  constexpr std::size_t Guests = 8;
  std::deque<CGuest> guests;
  std::deque<CBusyThread> threads;
  for (unsigned i = 0; i < Guests; ++i) {
    CGuest& guest = guests.emplace_back(root_, i);
    threads.emplace_back([&guest] { guest.Step(); });
  }
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_until(start + std::min<std::chrono::milliseconds>(length / 2, std::chrono::minutes(1)));
  const SFootprint warm = OwnFootprint(guests);
  SFootprint most = warm;
  // A campaign also tells growth from a peak.
  constexpr std::chrono::minutes Told{5};
  auto nextTold = start + Told;
  while (std::chrono::steady_clock::now() < start + length && !HasFailure()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const SFootprint now = OwnFootprint(guests);
    if (std::chrono::steady_clock::now() >= nextTold) {
      nextTold += Told;
      std::printf(
          "MEASURE %zu KiB (%zu with threads that ended), %zu threads, %zu descriptors; %zu KiB at most so far\n",
          now.residentKiB, Footprint().residentKiB, now.threads, now.descriptors, most.residentKiB);
      std::fflush(stdout);
    }
    most = {std::max(most.residentKiB, now.residentKiB), std::max(most.threads, now.threads),
            std::max(most.descriptors, now.descriptors)};
  }
  std::size_t steps = 0;
  for (CBusyThread& thread : threads) {
    thread.Stop();
    EXPECT_GT(thread.Rounds(), 0U);
    steps += thread.Rounds();
  }
  std::printf("MEASURE %zu steps; %zu KiB, %zu threads, %zu descriptors at first, %zu, %zu, %zu at most later\n", steps,
              warm.residentKiB, warm.threads, warm.descriptors, most.residentKiB, most.threads, most.descriptors);
  // Buffers and files that are kept open vary with what the guests just do.
  EXPECT_LT(most.residentKiB, warm.residentKiB + std::max<std::size_t>(24 * 1024, warm.residentKiB / 5));
  EXPECT_LE(most.threads, warm.threads + 3 * Guests);
  EXPECT_LE(most.descriptors, warm.descriptors + 300);
  EXPECT_EQ(service_.Stop(), 0);
}

}  // namespace
