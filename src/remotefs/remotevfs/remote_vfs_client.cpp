#include "remotefs/remotevfs/remote_vfs_client.h"

#include <boost/make_shared.hpp>
#include <exception>

#include "foundation/exc.h"
#include "remotefs/remotevfs/reply_reader.h"

namespace remotevfs {
namespace {

enum class Command : std::uint32_t { Enumerate = 0, Open = 1, Read = 2, Write = 3, GetSize = 4 };

constexpr std::size_t SmallCapacity = 32;
/// 64 KiB of data and a header.
constexpr std::size_t DataCapacity = 0x10020;

void Begin(Buffer& request, Command command) {
  request.AppendU32(static_cast<std::uint32_t>(command));
}

void Begin(Buffer& request, Command command, std::int32_t handle) {
  Begin(request, command);
  request.AppendU32(static_cast<std::uint32_t>(handle));
}

}  // namespace

RemoteVfsClient::RemoteVfsClient(const std::string& pipeName, std::uint32_t connectTimeoutMs,
                                 std::uint32_t responseTimeoutMs)
    : stopEvent_(boost::make_shared<synch::manual_event_t>()), responseTimeoutMs_(responseTimeoutMs) {
  try {
    pipeHandler_ = boost::make_shared<PipeHandler>(OpenPipe(pipeName, connectTimeoutMs), stopEvent_,
                                                   boost::make_shared<synch::manual_event_t>());
  } catch (const std::exception& exception) {
    exc::ChainAndThrow("Failed to connect to FS server. Pipe: [%1].", exception, pipeName);
  }
}

void RemoteVfsClient::Ask(const PipeHandler::SExchange& exchange) {
  if (IsBroken())
    throw exc::runtime_exc_t("Restore agent is not available.");
  bool isAnswered = false;
  try {
    isAnswered = pipeHandler_->Transact(exchange, responseTimeoutMs_);
  } catch (...) {
    // The next question might be given the reply to this one.
    broken_.store(true, std::memory_order_relaxed);
    throw;
  }
  if (isAnswered)
    return;
  broken_.store(true, std::memory_order_relaxed);
  throw exc::runtime_exc_t("Timed out waiting for the response from restore agent.");
}

boost::shared_ptr<VfsItemsArray> RemoteVfsClient::Enumerate(std::string_view path) {
  Buffer request;
  Begin(request, Command::Enumerate);
  request.AppendString(path);
  Buffer reply;
  Ask(request, reply);
  ReplyReader reader(reply.Bytes());
  return boost::make_shared<VfsItemsArray>(VfsItemsArray::Parse(reader));
}

std::int32_t RemoteVfsClient::Open(std::string_view path) {
  try {
    Buffer request;
    Begin(request, Command::Open);
    request.AppendString(path);
    Buffer reply;
    Ask(request, reply);
    return static_cast<std::int32_t>(ReplyReader(reply.Bytes()).U32());
  } catch (const std::exception& exception) {
    exc::ChainAndThrow("Failed to open backup item [%1].", exception, path);
  }
}

void RemoteVfsClient::Read(std::int32_t handle, std::uint64_t offset, std::uint32_t length, Buffer& out,
                           platform::kernel_pipe_t* pipe) {
  Buffer request(SmallCapacity);
  Begin(request, Command::Read, handle);
  request.AppendU64(offset);
  request.AppendU32(length);
  out.Clear();
  out.Reserve(DataCapacity);
  Ask({request.Bytes(), {}, out, pipe});
}

std::int32_t RemoteVfsClient::Write(std::int32_t handle, std::uint64_t offset, std::uint32_t length, const void* data,
                                    platform::kernel_pipe_t* tail) {
  // The data leaves from where it lies.
  const std::size_t inMemory = length - (tail == nullptr ? 0 : tail->Held());
  Buffer request(SmallCapacity);
  Begin(request, Command::Write, handle);
  request.AppendU64(offset);
  request.AppendU32(length);
  Buffer reply(SmallCapacity);
  Ask({request.Bytes(), {static_cast<const std::uint8_t*>(data), inMemory}, reply, nullptr, tail});
  return static_cast<std::int32_t>(ReplyReader(reply.Bytes()).U32());
}

std::uint64_t RemoteVfsClient::GetSize(std::int32_t handle) {
  Buffer request;
  Begin(request, Command::GetSize, handle);
  Buffer reply;
  Ask(request, reply);
  return ReplyReader(reply.Bytes()).U64();
}

}  // namespace remotevfs
