// Rounds, seeds and moments of a campaign of kills.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

namespace test {

/// Everything random of one campaign, from one seed, which is printed: KELVO_FAULT_SEED repeats a campaign, as far as
/// the machine's timing allows.
class CCampaign {
 public:
  /// rounds: unless KELVO_FAULT_ROUNDS says another number.
  explicit CCampaign(unsigned rounds) : rounds_(NumberOf("KELVO_FAULT_ROUNDS", rounds)) {
    seed_ = NumberOf("KELVO_FAULT_SEED", std::random_device()());
    random_.seed(seed_);
    std::printf("seed %u, %u rounds\n", seed_, rounds_);
  }
  unsigned Rounds() const { return rounds_; }
  std::string Text() const { return "seed " + std::to_string(seed_); }
  unsigned Below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  /// The one place where a test waits for a duration: a moment that nothing tells of is what a kill is to hit.
  void Pause(unsigned upToMs) { std::this_thread::sleep_for(std::chrono::microseconds(Below(upToMs * 1000 + 1))); }

 private:
  static unsigned NumberOf(const char* variable, unsigned otherwise) {
    const char* const text = std::getenv(variable);
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
  }

  unsigned rounds_;
  unsigned seed_ = 0;
  std::mt19937 random_;
};

}  // namespace test
