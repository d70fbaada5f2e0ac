#include "foundation/monitoring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>

using monitoring::CThreadState;
using monitoring::CThreadStatesCollection;
using monitoring::CThreadTrace;

namespace {

std::string Scope(const CThreadTrace& trace, std::size_t index) {
  char text[CThreadTrace::MaxText + 1];
  const std::size_t length = trace.ScopeText(index, text, sizeof(text));
  EXPECT_EQ(text[length], '\0');
  return std::string(text, length);
}

TEST(ThreadTrace, KeepsTheOpenScopesOutermostFirst) {
  const auto trace = std::make_unique<CThreadTrace>();
  trace->Push("Outer scope, longer than a word");
  trace->Push("Data size: [%1]. Error code: [%2].", 100, 64);
  trace->Push("");
  EXPECT_EQ(trace->OpenScopes(), 3u);
  EXPECT_EQ(Scope(*trace, 0), "Outer scope, longer than a word");
  EXPECT_EQ(Scope(*trace, 1), "Data size: [100]. Error code: [64].");
  EXPECT_EQ(Scope(*trace, 2), "");
  EXPECT_EQ(Scope(*trace, 3), "");
  trace->Pop();
  trace->Pop();
  trace->Push("Another one");
  EXPECT_EQ(Scope(*trace, 1), "Another one");
  trace->Pop();
  trace->Pop();
  trace->Pop();
  EXPECT_EQ(trace->OpenScopes(), 0u);
}

TEST(ThreadTrace, CutsLongTextsAndSmallBuffers) {
  const auto trace = std::make_unique<CThreadTrace>();
  const std::string text(CThreadTrace::MaxText + 50, 'x');
  trace->Push(text);
  EXPECT_EQ(Scope(*trace, 0), text.substr(0, CThreadTrace::MaxText));
  char small[4];
  EXPECT_EQ(trace->ScopeText(0, small, sizeof(small)), 3u);
  EXPECT_STREQ(small, "xxx");
  EXPECT_EQ(trace->ScopeText(0, small, 0), 0u);
}

TEST(ThreadTrace, CountsScopesThatItCannotKeep) {
  const auto trace = std::make_unique<CThreadTrace>();
  constexpr std::size_t Deep = CThreadTrace::MaxScopes + 3;
  for (std::size_t i = 0; i < Deep; ++i)
    trace->Push(std::to_string(i));
  EXPECT_EQ(trace->OpenScopes(), Deep);
  EXPECT_EQ(Scope(*trace, CThreadTrace::MaxScopes), "");
  for (std::size_t i = 0; i < 3; ++i)
    trace->Pop();
  trace->Push("over", 0, 0);
  EXPECT_EQ(Scope(*trace, CThreadTrace::MaxScopes - 1), std::to_string(CThreadTrace::MaxScopes - 1));
  for (std::size_t i = 0; i < Deep; ++i)
    trace->Pop();
  EXPECT_EQ(trace->OpenScopes(), 0u);
}

TEST(ThreadTrace, MayBeReadWhileItsThreadWrites) {
  const auto trace = std::make_unique<CThreadTrace>();
  std::atomic<bool> stop{false};
  std::thread owner([&] {
    while (!stop) {
      trace->Push("A text of some length that is copied");
      trace->Push("A pattern with %1 and %2", 1, 2);
      trace->Pop();
      trace->Pop();
    }
  });
  for (int i = 0; i < 2000; ++i) {
    EXPECT_LE(Scope(*trace, 0).size(), CThreadTrace::MaxText);
    EXPECT_LE(Scope(*trace, 1).size(), CThreadTrace::MaxText);
  }
  stop = true;
  owner.join();
}

TEST(ThreadStates, ARecordIsUsedAgainAndNeverFreed) {
  CThreadStatesCollection& collection = CThreadStatesCollection::Instance();
  const std::string longRole(CThreadState::MaxRole + 20, 'r');
  CThreadState& first = collection.Add(longRole, 7);
  EXPECT_TRUE(first.IsLive());
  EXPECT_EQ(first.Role(), longRole.substr(0, CThreadState::MaxRole));
  EXPECT_EQ(first.ParentId(), 7u);
  EXPECT_EQ(first.ThreadId(), monitoring::CurrentThreadId());
  first.Trace().Push("Left open");
  first.Trace().SetDepth(4);
  collection.Remove(first);
  EXPECT_FALSE(first.IsLive());

  CThreadState& second = collection.Add("second", 0);
  EXPECT_EQ(second.Trace().OpenScopes(), 0u);
  EXPECT_EQ(second.Trace().Depth(), 0);
  bool reachable = false;
  for (const CThreadState* state = collection.First(); state != nullptr; state = state->Next())
    reachable = reachable || state == &second;
  EXPECT_TRUE(reachable);
  collection.Remove(second);
}

TEST(ThreadStates, SnapshotTellsOfLiveThreadsAlone) {
  CThreadStatesCollection& collection = CThreadStatesCollection::Instance();
  CThreadState& state = collection.Add("snap", 3);
  state.Trace().Push("One");
  state.Trace().Push("Two %1", 2, 0);
  state.Trace().SetDepth(2);
  const auto find = [&] {
    const auto threads = collection.Snapshot();
    const auto place =
        std::find_if(threads.begin(), threads.end(), [](const auto& info) { return info.role == "snap"; });
    return place == threads.end() ? monitoring::thread_info_t() : *place;
  };
  EXPECT_EQ(find().depth, 2);
  EXPECT_EQ(find().scopes, (std::vector<std::string>{"One", "Two 2"}));
  collection.Remove(state);
  EXPECT_TRUE(find().role.empty());
}

TEST(ThreadStates, AReservedRecordIsNobodysUntilItsThreadBegins) {
  CThreadStatesCollection& collection = CThreadStatesCollection::Instance();
  const auto idOf = [&](std::string_view role) -> std::uint32_t {
    for (const auto& info : collection.Snapshot()) {
      if (info.role == role)
        return info.threadId;
    }
    return 0;
  };
  monitoring::thread_record_t record("reserved", 5);
  EXPECT_EQ(idOf("reserved"), 0u);
  // Nobody else is given it meanwhile.
  CThreadState& other = collection.Add("other", 0);
  std::thread thread([&] {
    const monitoring::thread_registration_t registration(record);
    EXPECT_EQ(idOf("reserved"), monitoring::CurrentThreadId());
    EXPECT_EQ(idOf("other"), other.ThreadId());
  });
  thread.join();
  EXPECT_EQ(idOf("reserved"), 0u);
  collection.Remove(other);
}

TEST(ThreadStates, ARecordThatNoThreadTookIsUsedAgain) {
  CThreadStatesCollection& collection = CThreadStatesCollection::Instance();
  const auto count = [&] {
    std::size_t records = 0;
    for (const CThreadState* state = collection.First(); state != nullptr; state = state->Next())
      ++records;
    return records;
  };
  { const monitoring::thread_record_t first("not taken", 0); }
  const std::size_t before = count();
  // More than all that were there, taken or not.
  for (std::size_t i = 0; i <= before; ++i)
    const monitoring::thread_record_t next("not taken", 0);
  EXPECT_EQ(count(), before);
}

TEST(ThreadStates, AThreadFromElsewhereHasARecordToItsEnd) {
  std::uint32_t id = 0;
  const auto isLive = [&] {
    const auto threads = CThreadStatesCollection::Instance().Snapshot();
    return std::any_of(threads.begin(), threads.end(), [&](const auto& info) { return info.threadId == id; });
  };
  std::thread thread([&] {
    id = monitoring::CurrentThreadId();
    EXPECT_FALSE(isLive());
    const monitoring::scope_note_t note("Noted");
    EXPECT_TRUE(isLive());
    ASSERT_NE(monitoring::CurrentTrace(), nullptr);
    EXPECT_EQ(Scope(*monitoring::CurrentTrace(), 0), "Noted");
    // A role replaces the record that the thread has already.
    monitoring::thread_record_t record("late role", 1);
    const monitoring::thread_registration_t registration(record);
    EXPECT_EQ(monitoring::CurrentTrace()->OpenScopes(), 0u);
  });
  thread.join();
  EXPECT_FALSE(isLive());
}

TEST(ScopeNote, IsClosedOnce) {
  CThreadTrace* const trace = monitoring::CurrentTrace();
  ASSERT_NE(trace, nullptr);
  const std::size_t before = trace->OpenScopes();
  {
    monitoring::scope_note_t outer("Outer");
    monitoring::scope_note_t inner("Inner %1", 5, 0);
    EXPECT_EQ(trace->OpenScopes(), before + 2);
    EXPECT_EQ(Scope(*trace, before + 1), "Inner 5");
    inner.Close();
    inner.Close();
    EXPECT_EQ(trace->OpenScopes(), before + 1);
  }
  EXPECT_EQ(trace->OpenScopes(), before);
}

}  // namespace
