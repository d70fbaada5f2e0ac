// What the tests of load have in common.
#pragma once

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "integration/support/footprint.h"
#include "integration/support/wire_fixture.h"

namespace test {

/// A whole number from the environment.
inline std::size_t Setting(const char* name, std::size_t otherwise) {
  const char* const given = std::getenv(name);
  return given == nullptr ? otherwise : std::stoul(given);
}

/// Runs its work again and again on a thread of its own. A call that gets no answer fails the test.
class CBusyThread {
 public:
  explicit CBusyThread(std::function<void()> work)
      : thread_([this, work = std::move(work)] {
          try {
            for (; !stop_; ++rounds_)
              work();
          } catch (const std::exception& failure) {
            ADD_FAILURE() << "A call got no answer: " << failure.what();
          }
        }) {}
  CBusyThread(const CBusyThread&) = delete;
  CBusyThread& operator=(const CBusyThread&) = delete;
  ~CBusyThread() { Stop(); }

  void Stop() {
    stop_ = true;
    if (thread_.joinable())
      thread_.join();
  }
  std::size_t Rounds() const { return rounds_; }

 private:
  std::atomic<bool> stop_ = false;
  std::atomic<std::size_t> rounds_ = 0;
  std::thread thread_;
};

class CLoadTest : public CWireTest {
 protected:
  /// The service inherits what the test may open; both need a descriptor for each connection.
  void SetUp() override {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    mayOpen_ = limit.rlim_cur;
    CWireTest::SetUp();
  }

  SFootprint Footprint() { return FootprintOf(service_.Process().Pid()); }
  /// Until the service has no more threads and descriptors than before; a few of either come and go by themselves.
  void ExpectFootprint(const SFootprint& before) {
    SFootprint after;
    EXPECT_TRUE(WaitUntil([&] {
      after = Footprint();
      return after.threads <= before.threads + 2 && after.descriptors <= before.descriptors + 4;
    })) << after.threads
        << " threads, " << before.threads << " before; " << after.descriptors << " descriptors, " << before.descriptors
        << " before";
  }

  rlim_t mayOpen_ = 0;
};

}  // namespace test
