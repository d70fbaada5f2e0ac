// What a client's TCP stream is cut into, by the servers of both kinds: the same bytes, in the same pieces.
#include <poll.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

#include "fuzz/fuzz_input.h"
#include "fuzz/streams_input.h"
#include "rpc/service_ports.h"
#include "transports/async/async_server.h"
#include "transports/sync/client_session.h"
#include "unit/transports/client.h"

namespace {

using fuzz::bytes_t;

constexpr std::size_t MarkSize = 4;
constexpr std::size_t LittleLength = 16384;
/// Records that begin with it make the program fail.
constexpr std::uint8_t Poison = 0xee;

bool IsAnswered(fuzz::bytes_view_t record) {
  return !record.empty() && record.size() % 4 == 0 && record.front() != Poison;
}

void Echo(CXDRReader& reader, CXDRWriter& writer) {
  const auto record = reader.Record();
  if (record.empty() || record.front() == Poison)
    throw exc::runtime_exc_t("No call.");
  writer.Data(record.data(), record.size());
}

class CEchoProgram : public IXdrRpcInterface {
 public:
  void ProcessCall(bool, const sockaddr_in&, CXDRReader& reader, CXDRWriter& writer, CVirtualFs&) override {
    Echo(reader, writer);
  }
};

/// One of each kind, for all inputs.
struct SServers {
  std::unique_ptr<CAsyncServer> async;
  std::uint16_t asyncPort = 0;
  CSocketIP listener{true};
  std::uint16_t syncPort = 0;
  boost::shared_ptr<CEchoProgram> program = boost::make_shared<CEchoProgram>();

  SServers() {
    SAsyncServerParams params;
    params.mountProgram = params.nfsProgram = params.portmapProgram = [](bool, const sockaddr_in&, CXDRReader& reader,
                                                                         CXDRWriter& writer) { Echo(reader, writer); };
    params.portmapPort = 0;
    async = std::make_unique<CAsyncServer>(std::move(params));
    asyncPort = ServicePorts().nfs;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    fuzz::Require(::bind(listener.Socket(), reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                      ::listen(listener.Socket(), 16) == 0 &&
                      ::getsockname(listener.Socket(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
                  "there is a listener");
    syncPort = ntohs(address.sin_port);
  }
};

SServers& Servers() {
  static SServers servers;
  return servers;
}

/// What is sent, and what has to be answered.
struct SPlan {
  std::vector<bytes_t> pieces;
  std::vector<bytes_t> replies;
  std::size_t length = 0;  ///< Of all pieces.
  bool isSound = true;     ///< The stream ends behind a record, and all of them are answered.
};

std::vector<bytes_t> ReadPieces(fuzz::CInput input) {
  namespace piece = fuzz::stream_piece;
  constexpr std::size_t Most = 4U << 20;
  std::vector<bytes_t> pieces;
  std::size_t total = 0;
  while (!input.IsEmpty() && total < Most) {
    const std::uint8_t kind = input.Byte() % piece::Kinds;
    const std::size_t length = input.Word();
    bytes_t bytes;
    if (kind == piece::Announced) {
      test::AppendWord(bytes, 0x80000000U | static_cast<std::uint32_t>(length));
    } else if (kind == piece::Large) {
      const bytes_t record(std::min(length % 8192 * 256, Most), input.Byte());
      bytes = test::WithMark(record);
    } else {
      const fuzz::bytes_view_t taken = input.Take(length);
      bytes.assign(taken.begin(), taken.end());
      if (kind == piece::Record)
        bytes = test::WithMark(bytes);
    }
    total += bytes.size();
    pieces.push_back(std::move(bytes));
  }
  return pieces;
}

SPlan MakePlan(fuzz::CInput input) {
  SPlan plan;
  plan.pieces = ReadPieces(input);
  bytes_t stream;
  for (const bytes_t& piece : plan.pieces)
    stream.insert(stream.end(), piece.begin(), piece.end());
  plan.length = stream.size();
  for (fuzz::CInput left(stream.data(), stream.size()); !left.IsEmpty();) {
    const fuzz::bytes_view_t markBytes = left.Take(MarkSize);
    plan.isSound = false;
    if (markBytes.size() < MarkSize)
      return plan;
    const std::uint32_t mark = test::WordAt({markBytes.begin(), markBytes.end()}, 0);
    const std::size_t length = mark & 0x7FFFFFFFU;
    const fuzz::bytes_view_t record = left.Take(length);
    if ((mark & 0x80000000U) == 0 || record.size() < length || !IsAnswered(record))
      return plan;
    plan.replies.emplace_back(record.begin(), record.end());
    plan.isSound = true;
  }
  return plan;
}

/// All that comes until the server ends its side.
bytes_t ReceiveAll(int socket) {
  bytes_t received;
  for (;;) {
    std::uint8_t part[65536];
    const ssize_t got = ::recv(socket, part, sizeof part, 0);
    if (got < 0 && errno == EINTR)
      continue;
    fuzz::Require(got >= 0 || errno == ECONNRESET, "a server ends a connection whose peer has ended its side");
    if (got <= 0)
      return received;
    received.insert(received.end(), part, part + got);
  }
}

void Judge(const SPlan& plan, const bytes_t& received) {
  bytes_t expected;
  for (const bytes_t& reply : plan.replies) {
    const bytes_t marked = test::WithMark(reply);
    expected.insert(expected.end(), marked.begin(), marked.end());
  }
  fuzz::Require(received.size() <= expected.size() && std::equal(received.begin(), received.end(), expected.begin()),
                "replies are those of the records, in their order");
  // A server that closes before it has read everything resets the connection, and what is on its way goes with it.
  fuzz::Require(!plan.isSound || received == expected, "every record is answered");
}

void Talk(const SPlan& plan, std::uint16_t port, const std::function<void()>& accepted) {
  test::Client client(port);
  accepted();
  const auto send = [&] {
    try {
      for (const bytes_t& piece : plan.pieces)
        client.Send(piece);
    } catch (const std::exception&) {
      fuzz::Require(!plan.isSound, "a server takes what a sound client sends");
    }
    ::shutdown(client.Handle(), SHUT_WR);
  };
  // A little fits into the buffers on the way, whether it is answered or not.
  std::thread sender;
  if (plan.length > LittleLength) {
    sender = std::thread(send);
  } else {
    send();
  }
  const bytes_t received = ReceiveAll(client.Handle());
  if (sender.joinable())
    sender.join();
  Judge(plan, received);
  // Leaves no connection that waits for a minute.
  client.Reset();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  Servers();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const SPlan plan = MakePlan({data, size});
  Talk(plan, Servers().asyncPort, [] {});
  std::thread session;
  Talk(plan, Servers().syncPort, [&] {
    const auto socket = boost::make_shared<CSocketIP>(Servers().listener.Accept(), true);
    session = std::thread([socket]() mutable {
      static char place[64];
      const boost::shared_ptr<CVirtualFs> fs(boost::shared_ptr<char>(), reinterpret_cast<CVirtualFs*>(place));
      CClientSession served({std::move(socket), Servers().program, fs, nullptr});
      served.Run();
    });
  });
  session.join();
  return 0;
}
