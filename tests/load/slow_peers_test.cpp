// Peers that read or write slowly, or not at all, among others that work.
#include <fcntl.h>
#include <sys/socket.h>

#include <deque>
#include <fstream>
#include <memory>

#include "load/load_fixture.h"

namespace {

using namespace test;

constexpr std::size_t SlowPeers = 8;
constexpr std::uint32_t BlockSize = 65536;

/// Asks for a lot and reads nothing of it until it is told to.
class CSlowReader {
 public:
  explicit CSlowReader(const bytes_t& file) : connection_(2049) {
    // As much as the connection takes without the server having to wait for us.
    fcntl(connection_.Socket(), F_SETFL, O_NONBLOCK);
    const bytes_t call =
        CallMessage(connection_.NextXid(), NfsProgram, 3, Read, CEncoder().Opaque(file).U64(0).U32(BlockSize));
    const bytes_t record = Mark(call.size()) + call;
    constexpr std::size_t Most = 400;
    while (sent_ < Most && send(connection_.Socket(), record.data(), record.size(), MSG_NOSIGNAL) ==
                               static_cast<ssize_t>(record.size()))
      ++sent_;
    fcntl(connection_.Socket(), F_SETFL, 0);
  }
  std::size_t Sent() const { return sent_; }
  /// The answers that came, all in their order.
  std::size_t ReadAll() {
    std::size_t count = 0;
    for (; count < sent_; ++count) {
      const auto record = connection_.ReceiveRecord();
      if (!record || !ParseReply(*record).IsSuccess())
        break;
    }
    return count;
  }

 private:
  CConnection connection_;
  std::size_t sent_ = 0;
};

class LoadSlowPeersTest : public CLoadTest {};
KELVO_WIRE_SUITE(LoadSlowPeersTest);

TEST_P(LoadSlowPeersTest, FastClientsAreAnsweredAllTheTime) {
  std::ofstream(HostPath("data")) << std::string(BlockSize, 'd');
  const bytes_t file = HandleOf("data");
  const SFootprint before = Footprint();
  std::deque<CSlowReader> readers;
  for (std::size_t i = 0; i < SlowPeers; ++i)
    readers.emplace_back(file);
  // A write that comes in a few bytes at a time.
  std::deque<CConnection> writers;
  const bytes_t write =
      CallMessage(77, NfsProgram, 3, Write,
                  CEncoder().Opaque(file).U64(0).U32(BlockSize).U32(2).Opaque(std::string(BlockSize, 'd')));
  const bytes_t record = Mark(write.size()) + write;
  std::size_t written = 0;
  for (std::size_t i = 0; i < SlowPeers; ++i)
    writers.emplace_back(2049);

  std::deque<CNfsClient> clients(4);
  std::deque<CBusyThread> fast;
  for (CNfsClient& client : clients) {
    fast.emplace_back([&client, &file] {
      EXPECT_EQ(client.Read(file, 0, BlockSize).data.size(), BlockSize);
      EXPECT_EQ(client.Write(file, 0, std::string(4096, 'd')), Ok);
    });
  }
  constexpr std::size_t Pieces = 20;
  const auto pause = std::chrono::milliseconds(Setting("KELVO_LOAD_SECONDS", 1) * 1000 / Pieces);
  for (std::size_t piece = 1; piece <= Pieces; ++piece) {
    const std::size_t end = record.size() * piece / Pieces;
    for (CConnection& writer : writers)
      writer.SendRaw(record.substr(written, end - written));
    written = end;
    std::this_thread::sleep_for(pause);
    // However long the slow ones stay: each of the fast ones has had another answer.
    std::vector<std::size_t> rounds;
    for (const CBusyThread& thread : fast)
      rounds.push_back(thread.Rounds());
    for (std::size_t i = 0; i < fast.size(); ++i)
      ASSERT_TRUE(WaitUntil([&] { return fast[i].Rounds() > rounds[i]; })) << "client " << i << ", piece " << piece;
  }
  // What nobody fetches costs no more than the server's bounds for each, where the blocks asked for are 25 MiB. The
  // synchronous server holds up to 8 MiB of calls that are under way, and as much of replies.
  constexpr std::size_t OtherKiB = 16 * 1024;
  const std::size_t boundKiB = std::size_t{IsSync(GetParam()) ? 18U : 6U} * 1024;
  const SFootprint full = Footprint();
  std::printf("MEASURE %zu KiB more with %zu readers that asked for %zu blocks of 64 KiB each\n",
              full.residentKiB - std::min(full.residentKiB, before.residentKiB), SlowPeers, readers.front().Sent());
  EXPECT_LT(full.residentKiB, before.residentKiB + SlowPeers * boundKiB + OtherKiB);
  fast.clear();
  for (CConnection& writer : writers) {
    const auto reply = writer.ReceiveRecord();
    ASSERT_TRUE(reply);
    EXPECT_TRUE(ParseReply(*reply).IsSuccess());
  }
  for (CSlowReader& reader : readers) {
    EXPECT_GT(reader.Sent(), 0U);
    EXPECT_EQ(reader.ReadAll(), reader.Sent());
  }
}

}  // namespace
