// Many connections, and connections that come and go.
#include <cstdio>
#include <deque>

#include "load/load_fixture.h"

namespace {

using namespace test;

class LoadConnectionsTest : public CLoadTest {};
KELVO_WIRE_SUITE(LoadConnectionsTest);

bytes_t HandleArgument(const bytes_t& handle) {
  return CEncoder().Opaque(handle);
}

TEST_P(LoadConnectionsTest, ThousandsAtOnce) {
  // The synchronous server has three threads for each.
  const std::size_t count = IsSync(GetParam()) ? 500 : 5000;
  if (mayOpen_ < count + 200)
    GTEST_SKIP() << "This account may open " << mayOpen_ << " files only.";
  const SFootprint before = Footprint();
  {
    std::deque<CConnection> connections;
    for (std::size_t i = 0; i < count; ++i)
      ASSERT_TRUE(connections.emplace_back(2049).Call(NfsProgram, GetAttr, HandleArgument(root_), 3).IsSuccess()) << i;
    const SFootprint full = Footprint();
    EXPECT_GE(full.descriptors, count);
    std::printf("MEASURE %zu KiB for each of %zu connections\n", (full.residentKiB - before.residentKiB) / count,
                count);
    // All of them have a call on its way at the same time.
    for (CConnection& connection : connections) {
      connection.SendRecord(CallMessage(connection.NextXid(), NfsProgram, 3, GetAttr, HandleArgument(root_)));
    }
    for (CConnection& connection : connections) {
      const auto record = connection.ReceiveRecord();
      ASSERT_TRUE(record);
      EXPECT_TRUE(ParseReply(*record).IsSuccess());
    }
    EXPECT_EQ(NewClient().GetAttr(root_), Ok);
    client_.reset();
  }
  ExpectFootprint(before);
}

TEST_P(LoadConnectionsTest, HundredsASecondComeAndGo) {
  constexpr std::size_t EachSecond = 500;
  const std::size_t count = EachSecond * Setting("KELVO_LOAD_SECONDS", 3);
  const SFootprint before = Footprint();
  CNfsClient steady;
  CBusyThread others([&] { EXPECT_EQ(steady.GetAttr(root_), Ok); });
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < count; ++i) {
    std::this_thread::sleep_until(start + i * std::chrono::microseconds(1000000 / EachSecond));
    CConnection connection(2049);
    // Some leave without a word, some in the middle of one, some without waiting for the answer.
    const bytes_t call = CallMessage(connection.NextXid(), NfsProgram, 3, GetAttr, HandleArgument(root_));
    if (i % 4 == 1)
      connection.SendRaw(Mark(call.size()) + call.substr(0, call.size() / 2));
    if (i % 4 >= 2)
      connection.SendRecord(call);
    if (i % 4 == 3) {
      ASSERT_TRUE(connection.ReceiveRecord());
    }
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  others.Stop();
  std::printf("MEASURE %.0f connections a second, %zu calls of a steady client beside them\n",
              static_cast<double>(count) / taken.count(), others.Rounds());
  EXPECT_GT(others.Rounds(), 0U);
  ExpectFootprint(before);
}

}  // namespace
