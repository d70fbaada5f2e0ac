#include "transports/async/request_queue.h"

#include <arpa/inet.h>

#include <array>
#include <chrono>
#include <thread>
#include <utility>

#include "foundation/log.h"
#include "foundation/thread.h"

namespace impl {
namespace {

/// About the time that waking a thread costs: a worker that finds work within it has gained.
constexpr std::chrono::microseconds SpinTime{30};

std::string NumericHost(const sockaddr_in& peer) {
  std::array<char, INET_ADDRSTRLEN> text{};
  return ::inet_ntop(AF_INET, &peer.sin_addr, text.data(), text.size()) == nullptr ? std::string() : text.data();
}

void LogFailure(const CResponseSender& sender, const char* text) noexcept {
  try {
    const sockaddr_in& peer = sender.GetPeerAddress();
    g_nfs_log.Error("Client %1:%2: exception while handling request: %3", NumericHost(peer), ntohs(peer.sin_port),
                    text);
  } catch (const std::exception&) {
    // Out of memory for a line of the log.
  }
}

}  // namespace

CRequestQueue::CRequestQueue(std::string name, rpc_handler_t handler)
    : name_(std::move(name)), handler_(std::move(handler)) {
  thread_ = std::make_unique<synch::thread_t>("Request queue " + name_, [this] { Work(); });
}

CRequestQueue::~CRequestQueue() {
  Stop();
}

void CRequestQueue::Post(boost::intrusive_ptr<CResponseSender> sender, boost::shared_ptr<io::byte_buffer_t> record,
                         completion_ptr extra) {
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    if (stopping_) {
      return;
    }
    items_.push_back({std::move(sender), std::move(record), std::move(extra)});
    itemsCount_.store(items_.size(), std::memory_order_relaxed);
    wake = std::exchange(sleeping_, false);
  }
  if (wake) {
    notEmpty_.notify_one();
  }
}

void CRequestQueue::Stop() {
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
  }
  notEmpty_.notify_one();
  thread_.reset();
}

void CRequestQueue::SpinForWork() const noexcept {
  static const bool useful = std::thread::hardware_concurrency() > 1;
  if (!useful) {
    return;
  }
  const auto end = std::chrono::steady_clock::now() + SpinTime;
  while (itemsCount_.load(std::memory_order_relaxed) == 0 && !stopping_.load(std::memory_order_relaxed) &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
}

bool CRequestQueue::Take(std::vector<SItem>& batch) {
  SpinForWork();
  std::unique_lock guard(lock_);
  while (items_.empty()) {
    if (stopping_) {
      return false;
    }
    sleeping_ = true;
    notEmpty_.wait(guard);
  }
  sleeping_ = false;
  batch.swap(items_);
  itemsCount_.store(0, std::memory_order_relaxed);
  return true;
}

void CRequestQueue::Work() noexcept {
  std::vector<SItem> batch;
  while (Take(batch)) {
    for (SItem& item : batch) {
      Process(item);
      item = SItem();
    }
    batch.clear();
  }
}

void CRequestQueue::Process(SItem& item) const noexcept {
  try {
    CXDRReader reader(std::move(item.record));
    CXDRWriter writer;
    handler_(item.sender->IsFsAccessAllowed(), item.sender->GetPeerAddress(), reader, writer);
    item.sender->Send(writer, std::move(item.extra));
    return;
  } catch (const std::exception& failure) {
    LogFailure(*item.sender, failure.what());
  } catch (...) {
    LogFailure(*item.sender, "unknown");
  }
  item.sender->Close();
}

}  // namespace impl
