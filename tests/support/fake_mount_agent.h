// A mount agent in memory that does as it is told, also what no agent should.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/message_pipe.h"
#include "platform/named_event.h"

namespace test {

using Bytes = std::vector<std::uint8_t>;

/// Little-endian, as all numbers of the pipe.
template <typename T>
Bytes WireNumber(T number) {
  Bytes bytes(sizeof(T));
  for (std::size_t i = 0; i < sizeof(T); ++i)
    bytes[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(number) >> (8 * i));
  return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes WireBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

/// A length in 32 bits and the bytes.
inline Bytes WireString(const std::string& text) {
  return WireNumber(static_cast<std::uint32_t>(text.size())) + WireBytes(text);
}

/// A request, taken apart as far as it goes.
struct AgentRequest {
  std::uint32_t command = 0xFFFFFFFF;
  std::string path;          ///< Of Enumerate and Open.
  std::int32_t handle = 0;   ///< Of the others.
  std::uint64_t offset = 0;  ///< Of Read and Write.
  std::uint32_t length = 0;  ///< Of Read and Write.
  Bytes data;                ///< Of Write.
  Bytes raw;

  explicit AgentRequest(Bytes bytes) : raw(std::move(bytes)) {
    command = Number<std::uint32_t>(0);
    if (command <= 1) {
      path = std::string(raw.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(8, raw.size())), raw.end());
    } else {
      handle = static_cast<std::int32_t>(Number<std::uint32_t>(4));
      offset = Number<std::uint64_t>(8);
      length = Number<std::uint32_t>(16);
      data.assign(raw.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(20, raw.size())), raw.end());
    }
  }

 private:
  template <typename T>
  T Number(std::size_t at) const {
    T number = 0;
    for (std::size_t i = 0; i < sizeof(T) && at + i < raw.size(); ++i)
      number |= static_cast<T>(static_cast<T>(raw[at + i]) << (8 * i));
    return number;
  }
};

/// What becomes of a request.
struct AgentReply {
  Bytes bytes;
  bool isRaw = false;   ///< The bytes go out as they are, without the length of a message in front.
  bool hangUp = false;  ///< Then the pipe is closed.

  static AgentReply Message(Bytes bytes) { return {std::move(bytes), false, false}; }
  static AgentReply Raw(Bytes bytes) { return {std::move(bytes), true, false}; }
  static AgentReply RawAndHangUp(Bytes bytes) { return {std::move(bytes), true, true}; }
  /// No answer.
  static AgentReply Silence() { return Raw({}); }
  static AgentReply HangUp() { return RawAndHangUp({}); }
};

/// Serves files in memory on one pipe, `BASE-0` or `BASE-NUMBER`, with its reset event, in a thread of its own. One
/// client at a time; a reset forgets it and answers the next. The files can be changed at any time, and a script can
/// answer in the agent's place. Any thread.
///
/// KELVO_RUNTIME_DIR must name a folder of the test's own meanwhile.
class FakeMountAgent {
 public:
  /// Nothing: the agent answers as it would without the script.
  using Script = std::function<std::optional<AgentReply>(const AgentRequest&)>;

  /// `waiting`: clients that may wait beside one.
  explicit FakeMountAgent(const std::string& base, int waiting = 16, int number = 0)
      : stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    const std::string name = base + "-" + std::to_string(number);
    if (platform::pipe_listener_t::Listen(R"(\\.\pipe\)" + name, 0600, waiting, listener_) != 0 ||
        platform::named_event_t::Create("Global\\VFS_on_" + name, 0600, reset_) != 0)
      throw std::runtime_error("The agent cannot start.");
    thread_ = std::thread([this] { Run(); });
  }
  FakeMountAgent(const FakeMountAgent&) = delete;
  FakeMountAgent& operator=(const FakeMountAgent&) = delete;
  /// The agent dies: its names and its client's pipe go.
  ~FakeMountAgent() {
    ::eventfd_write(stop_.Get(), 1);
    thread_.join();
  }

  void SetScript(Script script) {
    const std::lock_guard lock(mutex_);
    script_ = std::move(script);
  }
  /// The path as in a request: `//` between a folder and its child.
  void SetFile(const std::string& path, Bytes content) {
    const std::lock_guard lock(mutex_);
    files_[path] = std::move(content);
  }
  void RemoveFile(const std::string& path) {
    const std::lock_guard lock(mutex_);
    files_.erase(path);
  }
  Bytes FileContent(const std::string& path) const {
    const std::lock_guard lock(mutex_);
    const auto found = files_.find(path);
    return found == files_.end() ? Bytes() : found->second;
  }

  /// All requests so far, as they came.
  std::vector<Bytes> Requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }
  void WaitForRequests(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return requests_.size() >= count; });
  }
  /// Clients that came, and resets that were signalled, so far.
  int Clients() const {
    const std::lock_guard lock(mutex_);
    return clients_;
  }
  int Resets() const {
    const std::lock_guard lock(mutex_);
    return resets_;
  }
  void WaitForResets(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return resets_ >= count; });
  }
  void WaitForClients(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return clients_ >= count; });
  }

 private:
  void Run() {
    for (;;) {
      const int client = client_ ? client_->Descriptor() : -1;
      // The next one waits until this one has gone, unless a reset was meant for it.
      const int next = client_ && !mayBeForgotten_ ? -1 : listener_->Descriptor();
      std::array<pollfd, 4> entries{
          {{stop_.Get(), POLLIN, 0}, {reset_->Descriptor(), POLLIN, 0}, {client, POLLIN, 0}, {next, POLLIN, 0}}};
      if (::poll(entries.data(), entries.size(), -1) < 0)
        continue;
      if (entries[0].revents != 0)
        return;
      if (entries[1].revents != 0) {
        client_.reset();
        CountReset();
      } else if (entries[3].revents != 0) {
        Accept();
      } else if (entries[2].revents != 0) {
        ServeRequest();
      }
    }
  }

  void CountReset() {
    reset_->Reset();
    wasReset_ = true;
    const std::lock_guard lock(mutex_);
    ++resets_;
    changed_.notify_all();
  }

  void Accept() {
    if (listener_->Accept(client_) != 0)
      return;
    // Whoever resets does so before it connects. A reset seen only now was for the client before; or this one was taken
    // late, and the one that it is for is still to come. The same when one reset was seen where two were signalled.
    mayBeForgotten_ = reset_->IsSet() || wasReset_;
    wasReset_ = false;
    if (reset_->IsSet()) {
      CountReset();
      wasReset_ = false;
    }
    handles_.clear();
    const std::lock_guard lock(mutex_);
    ++clients_;
    changed_.notify_all();
  }

  void ServeRequest() {
    Bytes bytes;
    const std::array<int, 2> cancels{stop_.Get(), reset_->Descriptor()};
    const platform::pipe_wait_t wait{platform::deadline_t::Never(), cancels};
    if (client_->ReadMessage(bytes, platform::MaxPipeMessage, wait) != 0) {
      client_.reset();
      return;
    }
    const AgentRequest request(std::move(bytes));
    Script script;
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request.raw);
      script = script_;
      changed_.notify_all();
    }
    std::optional<AgentReply> reply = script ? script(request) : std::nullopt;
    if (!reply)
      reply = AgentReply::Message(Answer(request));
    if (reply->isRaw) {
      SendRaw(reply->bytes);
    } else {
      client_->Write(reply->bytes, wait);
    }
    if (reply->hangUp)
      client_.reset();
  }

  void SendRaw(const Bytes& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
      pollfd entries[2] = {{client_->Descriptor(), POLLOUT, 0}, {stop_.Get(), POLLIN, 0}};
      ::poll(entries, 2, -1);
      const ssize_t count =
          ::send(client_->Descriptor(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0)
        sent += static_cast<std::size_t>(count);
      if (entries[1].revents != 0 || (count < 0 && errno != EAGAIN))
        return;
    }
  }

  Bytes Answer(const AgentRequest& request) {
    const std::lock_guard lock(mutex_);
    if (request.command == 0)
      return List(request.path.empty() ? "" : request.path + "//");
    if (request.command == 1) {
      if (!files_.contains(request.path))
        return WireNumber<std::int32_t>(-1);
      handles_.push_back(request.path);
      return WireNumber(static_cast<std::int32_t>(handles_.size() - 1));
    }
    const auto index = static_cast<std::size_t>(request.handle);
    const auto found = request.handle >= 0 && index < handles_.size() ? files_.find(handles_[index]) : files_.end();
    if (request.command == 4)
      return WireNumber<std::uint64_t>(found == files_.end() ? 0 : found->second.size());
    if (found == files_.end())
      return request.command == 2 ? Bytes() : WireNumber<std::int32_t>(-1);
    return request.command == 2 ? ReadFile(found->second, request) : WriteFile(found->second, request);
  }

  Bytes List(const std::string& folder) const {
    Bytes items;
    std::uint32_t count = 0;
    for (const auto& [path, content] : files_) {
      if (!path.starts_with(folder) || path.find("//", folder.size()) != std::string::npos)
        continue;
      ++count;
      items = std::move(items) + WireNumber<std::uint32_t>(0) + WireNumber<std::uint64_t>(content.size()) +
              WireString(path.substr(folder.size()));
    }
    return WireNumber(count) + items;
  }

  static Bytes ReadFile(const Bytes& content, const AgentRequest& request) {
    const std::size_t begin = std::min<std::uint64_t>(request.offset, content.size());
    const std::size_t end = begin + std::min<std::size_t>(request.length, content.size() - begin);
    return {content.begin() + static_cast<std::ptrdiff_t>(begin), content.begin() + static_cast<std::ptrdiff_t>(end)};
  }

  static Bytes WriteFile(Bytes& content, const AgentRequest& request) {
    content.resize(std::max<std::size_t>(content.size(), request.offset + request.data.size()));
    std::copy(request.data.begin(), request.data.end(), content.begin() + static_cast<std::ptrdiff_t>(request.offset));
    return WireNumber(static_cast<std::int32_t>(request.data.size()));
  }

  const platform::descriptor_t stop_;
  boost::shared_ptr<platform::pipe_listener_t> listener_;
  boost::shared_ptr<platform::named_event_t> reset_;

  // The thread's alone.
  boost::shared_ptr<platform::message_pipe_t> client_;
  bool wasReset_ = false;        ///< Since the last client came.
  bool mayBeForgotten_ = false;  ///< The client that comes next takes its place.
  std::vector<std::string> handles_;

  mutable std::mutex mutex_;  // Guards the rest.
  std::condition_variable changed_;
  Script script_;
  std::map<std::string, Bytes> files_;
  std::vector<Bytes> requests_;
  int clients_ = 0;
  int resets_ = 0;

  std::thread thread_;
};

}  // namespace test
