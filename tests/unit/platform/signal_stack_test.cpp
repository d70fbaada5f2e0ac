#include "platform/signal_stack.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <thread>

namespace platform {
namespace {

stack_t Current() {
  stack_t stack{};
  EXPECT_EQ(sigaltstack(nullptr, &stack), 0);
  return stack;
}

std::uintptr_t handledAt = 0;

void Handle(int) {
  handledAt = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
}

TEST(SignalStack, HandlersRunOnIt) {
  std::thread([] {
    const signal_stack_t stack;
    struct sigaction action {};
    action.sa_handler = Handle;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &action, nullptr);
    raise(SIGUSR1);
    const auto begin = reinterpret_cast<std::uintptr_t>(Current().ss_sp);
    EXPECT_GE(Current().ss_size, 128U << 10);
    EXPECT_TRUE(begin <= handledAt && handledAt < begin + Current().ss_size);
  }).join();
}

TEST(SignalStack, TheOldOneComesBack) {
  const stack_t before = Current();
  {
    const signal_stack_t outer;
    const stack_t first = Current();
    {
      const signal_stack_t inner;
      EXPECT_NE(Current().ss_sp, first.ss_sp);
    }
    EXPECT_EQ(Current().ss_sp, first.ss_sp);
  }
  EXPECT_EQ(Current().ss_flags, before.ss_flags);
  EXPECT_EQ(Current().ss_sp, before.ss_sp);
}

}  // namespace
}  // namespace platform
