// A file that remembers what was asked of it, and a gate that holds its calls.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/events.h"
#include "foundation/exc.h"
#include "vfs/items/fs_item.h"
#include "vfs/items/fs_proc.h"

namespace test {

/// Long enough that only something lost lets it pass.
inline constexpr std::uint32_t PatientMs = 60000;

/// Each call notes its name, its thread, and whether another one was inside at the same time; then does what `action`
/// says. Any thread.
class RecordingFile : public IFsFile {
 public:
  std::function<void(const std::string& call)> action;

  std::vector<std::string> Calls() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return calls_;
  }
  std::thread::id LastThread() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return lastThread_;
  }
  int MostAtOnce() const { return mostAtOnce_; }

  void GetItemSpec(SFsItemSpec& spec) override {
    Note("spec");
    spec.path = "/a/path";
  }
  void GetAttributes(WIN32_FILE_ATTRIBUTE_DATA& attributes) override {
    Note("attributes");
    attributes.sizeLow = 77;
  }
  void SetPermissions(bool read, bool write) override {
    Note("permissions " + std::to_string(read) + std::to_string(write));
  }
  void SetTimes(const FILETIME* creation, const FILETIME* lastAccess, const FILETIME* lastWrite) override {
    Note("times " + std::to_string(creation != nullptr) + std::to_string(lastAccess != nullptr) +
         std::to_string(lastWrite != nullptr));
  }
  bool Exists() override {
    Note("exists");
    return true;
  }
  bool GetMountUid(GUID&) override {
    Note("mount");
    return true;
  }
  bool IsAddressAllowed(const sockaddr_in& address) override {
    Note("allowed " + std::to_string(address.sin_port));
    return true;
  }
  std::string GetAllowedHostAddr() override {
    Note("addresses");
    return "10.0.0.1";
  }
  void Read(std::uint64_t offset, std::uint32_t count, SFsReadBuffer& buffer) override {
    Note("read " + std::to_string(offset) + " " + std::to_string(count));
    buffer.data.assign(count, 'r');
    buffer.length = count;
    buffer.eof = true;
  }
  void Write(std::uint64_t offset, std::uint32_t count, const void* data) override {
    Note("write " + std::to_string(offset) + " " + std::string(static_cast<const char*>(data), count));
  }
  void Resize(std::uint64_t newSize) override { Note("resize " + std::to_string(newSize)); }

 private:
  void Note(const std::string& call) {
    const int inside = ++inside_;
    for (int most = mostAtOnce_; inside > most && !mostAtOnce_.compare_exchange_weak(most, inside);) {
    }
    {
      const std::lock_guard<std::mutex> guard(lock_);
      calls_.push_back(call);
      lastThread_ = std::this_thread::get_id();
    }
    try {
      if (action)
        action(call);
    } catch (...) {
      --inside_;
      throw;
    }
    --inside_;
  }

  mutable std::mutex lock_;
  std::vector<std::string> calls_;
  std::thread::id lastThread_;
  std::atomic<int> inside_{0};
  std::atomic<int> mostAtOnce_{0};
};

/// Holds whoever enters until it is opened.
class Gate {
 public:
  void Enter() {
    entered_.Set();
    open_.Wait();
  }
  bool WaitEntered() { return entered_.Wait(PatientMs); }
  void Open() { open_.Set(); }

 private:
  synch::manual_event_t entered_;
  synch::manual_event_t open_;
};

/// A procedure made of a function.
class FunctionProc : public IFsProc {
 public:
  explicit FunctionProc(std::function<void()> function) : function_(std::move(function)) {}
  void Execute() override { function_(); }

 private:
  const std::function<void()> function_;
};

/// Remembers how it was told of the end.
class RecordingCallback : public IFsProcCompletionCallback {
 public:
  std::function<void()> onCompleted;
  std::function<void()> onFailed;

  void OnCompleted() override {
    ++completed;
    if (onCompleted)
      onCompleted();
    told.Set();
  }
  void OnFailed(const std::exception& exception) override {
    ++failed;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      failure_ = exception.what();
    }
    told.Set();
    if (onFailed)
      onFailed();
  }
  std::string Failure() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return failure_;
  }

  std::atomic<int> completed{0};
  std::atomic<int> failed{0};
  synch::manual_event_t told;

 private:
  mutable std::mutex lock_;
  std::string failure_;
};

}  // namespace test
