// The loop without memory for what it is told.
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <utility>

#include "support/captured_log.h"
#include "support/refused_memory.h"
#include "transports/async/completion_port.h"
#include "transports/async/socket.h"
#include "unit/transports/client.h"

namespace test {
namespace {

class Object : public win::CSocket {
 public:
  Object() : CSocket(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
};

class Event : public win::CIoEventHandler {
 public:
  Event(boost::intrusive_ptr<win::CIoObject> owner, std::function<void()> told)
      : CIoEventHandler(std::move(owner), win::io_direction_t::Read), told_(std::move(told)) {}
  win::io_attempt_t Attempt(int, win::SIoResult&) override { return win::io_attempt_t::Done; }
  void OnComplete(win::CIoObject&, platform::error_t, std::uint32_t) override { told_(); }

 private:
  std::function<void()> told_;
};

TEST(CompletionPortMemory, KeepsWhatIsDueBehindWhatWasPostedUntilThereIsRoom) {
  // More than a piece of the loop's own list has room for, so that the loop asks for memory in the midst of them.
  constexpr int Delayed = 100;
  const CapturedLog log;
  const auto port = boost::make_shared<synch::completion_port_t>();
  boost::intrusive_ptr<Object> object(new Object);
  port->Associate(*object);
  std::thread loop([&] { port->Run(); });
  std::atomic<int> told{0};
  std::atomic<bool> failed{false};
  std::optional<RefusedRequest> refusal;  // Of the loop's thread.
  // Rounds begin at different places of a piece: in most of them the first memory is asked for behind what was posted.
  constexpr int Rounds = 25;
  for (int round = 1; round <= Rounds; ++round) {
    std::promise<void> begun;
    std::promise<void> go;
    object->CompleteLater(new Event(object,
                                    [&] {
                                      begun.set_value();
                                      go.get_future().wait();
                                      refusal.emplace(0);
                                    }),
                          {});
    begun.get_future().wait();
    object->CompleteLater(new Event(object, [&] { ++told; }), {});
    for (int i = 0; i < Delayed; ++i) {
      object->CompleteIn(std::chrono::milliseconds(0), new Event(object, [&] { ++told; }));
    }
    go.set_value();
    const bool areAllTold = Eventually([&] { return told == round * (Delayed + 1); });
    EXPECT_TRUE(areAllTold) << round << ' ' << told;
    if (!areAllTold) {
      break;
    }
  }
  object->CompleteLater(new Event(object,
                                  [&] {
                                    failed = refusal->HasHappened();
                                    refusal.reset();
                                    ++told;
                                  }),
                        {});
  EXPECT_TRUE(Eventually([&] { return told == Rounds * (Delayed + 1) + 1; }));
  port->Stop();
  loop.join();
  // The allocation that was to fail did.
  EXPECT_TRUE(failed);
  port->Abandon();
}

TEST(CompletionPortMemory, EndsWithoutAny) {
  const CapturedLog log;
  const auto port = boost::make_shared<synch::completion_port_t>();
  std::thread loop([&] { port->Run(); });
  {
    const RefusedRequest refusal(0);
    EXPECT_NO_THROW(port->Stop());
    EXPECT_FALSE(refusal.HasHappened());
  }
  loop.join();
  port->Abandon();
}

}  // namespace
}  // namespace test
