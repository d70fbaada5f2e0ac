// The client of a mount agent before an agent that sends anything.
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "fuzz/fuzz_input.h"
#include "fuzz/mount_agent_input.h"
#include "platform/location.h"
#include "platform/message_pipe.h"
#include "platform/text.h"
#include "remotefs/remotevfs/remote_vfs_client.h"
#include "remotefs/remotevfs/reply_reader.h"
#include "remotefs/remotevfs/vfs_items_array.h"

namespace {

using remotevfs::Buffer;
using remotevfs::RemoteVfsClient;
using remotevfs::VfsItemsArray;

constexpr const char* Pipe = R"(\\.\pipe\fuzz-0)";
/// For replies that never end; all others are there at once.
constexpr std::uint32_t ResponseMs = 5;

std::string g_runtimeFolder;
boost::shared_ptr<platform::pipe_listener_t> g_listener;

namespace chunk_mark = fuzz::chunk_mark;

void Send(int socket, fuzz::bytes_view_t bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0)
      return;
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
}

/// Serves one client from the input.
void ServeClient(fuzz::CInput input, const boost::shared_ptr<synch::manual_event_t>& stopEvent) {
  boost::shared_ptr<platform::message_pipe_t> client;
  fuzz::Require(g_listener->Accept(client) == 0, "the client is there");
  std::vector<std::uint8_t> request;  // Grows as bytes arrive.
  while (!input.IsEmpty()) {
    const std::uint8_t mark = input.Byte();
    const fuzz::bytes_view_t bytes = input.Take(input.Word());
    if ((mark & chunk_mark::Unasked) == 0 && client->ReadMessage(request) != 0)
      return;
    if ((mark & chunk_mark::Framed) != 0) {
      const auto length = static_cast<std::uint32_t>(bytes.size() + ((mark & chunk_mark::Announces) != 0 ? 4096 : 0));
      const std::uint8_t header[4] = {static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8),
                                      static_cast<std::uint8_t>(length >> 16), 0};
      Send(client->Descriptor(), header);
    }
    Send(client->Descriptor(), bytes);
    if ((mark & chunk_mark::HangUp) != 0)
      break;
  }
  // What is asked now gets no answer: nobody need wait for it.
  stopEvent->Set();
  while (client->ReadMessage(request) == 0) {
  }
}

void CheckListing(const VfsItemsArray& items, std::size_t size) {
  constexpr std::size_t LeastRecord = 17;
  fuzz::Require(items.Size() <= size / LeastRecord, "every item has its bytes");
  for (const remotevfs::VfsItem& item : items.Items()) {
    fuzz::Require(platform::IsPlainName(item.name), "a name leads nowhere else");
    fuzz::Require(platform::IsValidUtf8(item.name), "a name is text");
  }
}

void ParseListing(fuzz::bytes_view_t bytes) {
  fuzz::Try([&] {
    remotevfs::ReplyReader reader(bytes);
    CheckListing(VfsItemsArray::Parse(reader), bytes.size());
  });
}

void TalkToAgent(fuzz::CInput input, std::size_t size) {
  auto client = std::make_unique<RemoteVfsClient>(Pipe, 1000, ResponseMs);
  std::thread agent(ServeClient, input, client->StopEvent());
  {
    const std::uint8_t data[100] = {};
    Buffer out;
    for (int round = 0; round < 3; ++round) {
      fuzz::Try([&] { CheckListing(*client->Enumerate(), size); });
      fuzz::Try([&] { CheckListing(*client->Enumerate("a//b"), size); });
      std::int32_t handle = -1;
      fuzz::Try([&] { handle = client->Open("disk"); });
      fuzz::Try([&] { client->GetSize(handle); });
      fuzz::Try([&] {
        client->Read(handle, ~std::uint64_t{0}, sizeof data, out);
        fuzz::Require(out.ActualSize() <= size + 4096, "every byte has come");
      });
      fuzz::Try([&] { client->Write(handle, 0, sizeof data, data); });
    }
    const bool wasBroken = client->IsBroken();
    const bool succeeded = fuzz::Try([&] { client->GetSize(0); });
    fuzz::Require(!(wasBroken && succeeded), "a broken client stays so");
  }
  client.reset();
  agent.join();
}

void RemoveRuntimeFolder() {
  g_listener.reset();
  std::error_code ignored;
  std::filesystem::remove_all(g_runtimeFolder, ignored);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  std::string pattern = (std::filesystem::temp_directory_path() / "kelvo-fuzz-XXXXXX").string();
  fuzz::Require(::mkdtemp(pattern.data()) != nullptr, "there is a folder for the pipe");
  g_runtimeFolder = pattern;
  ::setenv("KELVO_RUNTIME_DIR", g_runtimeFolder.c_str(), 1);
  std::atexit(RemoveRuntimeFolder);
  fuzz::Require(platform::pipe_listener_t::Listen(Pipe, 0600, 16, g_listener) == 0, "there is a pipe");
  return 0;
}

/// Even first byte: one reply, a listing. Odd: what the agent sends in a whole session.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::CInput input(data, size);
  if ((input.Byte() & 1) == 0) {
    ParseListing(input.Rest());
  } else {
    TalkToAgent(input, size);
  }
  return 0;
}
