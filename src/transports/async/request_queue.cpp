#include "transports/async/request_queue.h"

#include <arpa/inet.h>

#include <array>
#include <chrono>
#include <iterator>
#include <thread>
#include <utility>

#include "foundation/log.h"
#include "foundation/thread.h"
#include "platform/lookup_scope.h"
#include "platform/meanwhile.h"

namespace impl {
namespace {

/// A record or a reply of so many bytes moves data. Who has that to take is not back with the next call within
/// the time that the worker looks for it.
constexpr std::size_t Large = std::size_t{16} << 10;
/// So many looks without a request that the completion thread was lent for, then the worker sleeps.
constexpr unsigned LooksInVain = 16;

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

CRequestQueue::CRequestQueue(std::string name, rpc_handler_t handler, boost::shared_ptr<synch::completion_port_t> port)
    : name_(std::move(name)), handler_(std::move(handler)), port_(std::move(port)) {
  thread_ = std::make_unique<synch::thread_t>("Request queue " + name_, [this] { Work(); });
}

CRequestQueue::~CRequestQueue() {
  Stop();
}

void CRequestQueue::Post(boost::intrusive_ptr<CResponseSender> sender, boost::shared_ptr<io::byte_buffer_t> record,
                         completion_ptr extra, boost::shared_ptr<platform::kernel_pipe_t> rest) {
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    if (stopping_) {
      return;
    }
    items_.push_back({std::move(sender), std::move(record), std::move(extra), std::move(rest)});
    itemsCount_.store(items_.size(), std::memory_order_relaxed);
    if (sleeping_ && !lent_ && !MayLendLocked()) {
      sleeping_ = false;
      wake = true;
    }
  }
  if (wake) {
    notEmpty_.notify_one();
  }
}

bool CRequestQueue::MayLendLocked() noexcept {
  // While the worker sleeps, nobody changes what is known of the last request.
  return port_ != nullptr && items_.size() == 1 && (lastReply_ >= Large || lastRequest_ >= Large) &&
         port_->OfferWork(*this);
}

void CRequestQueue::RunLent() noexcept {
  SItem item;
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    if (!sleeping_ || items_.size() != 1) {
      // The worker has it, or is about to.
      return;
    }
    item = std::move(items_.front());
    items_.clear();
    itemsCount_.store(0, std::memory_order_relaxed);
    lent_ = true;
    ++lentRequests_;
    wake = !std::exchange(looks_, true);
  }
  if (wake) {
    notEmpty_.notify_one();
  }
  {
    const platform::lookup_scope_t scope;
    leftInBatch_ = 0;
    Process(item, reply_t::Send);
    item = SItem();
  }
  {
    const std::lock_guard guard(lock_);
    lent_ = false;
    wake = sleeping_ && (!items_.empty() || continueParked_ || stopping_);
    if (wake) {
      sleeping_ = false;
    }
  }
  if (wake) {
    notEmpty_.notify_one();
  }
}

void CRequestQueue::Decline() noexcept {
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    wake = !items_.empty() && std::exchange(sleeping_, false);
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

void CRequestQueue::ContinueParked() noexcept {
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    continueParked_ = true;
    wake = std::exchange(sleeping_, false);
  }
  if (wake) {
    notEmpty_.notify_one();
  }
}

void CRequestQueue::SpinForWork() const noexcept {
  static const bool useful = std::thread::hardware_concurrency() > 1;
  if (!useful) {
    return;
  }
  const auto end = clock_t::now() + synch::completion_port_t::SpinTime;
  while (itemsCount_.load(std::memory_order_relaxed) == 0 && !continueParked_.load(std::memory_order_relaxed) &&
         !stopping_.load(std::memory_order_relaxed) && clock_t::now() < end) {
    std::this_thread::yield();
  }
}

bool CRequestQueue::ShallSpin() const noexcept {
  // After a large request the completion thread does, if it is to carry out the next one.
  const bool leavesIt = lastRequest_ >= Large && port_ != nullptr && port_->AcceptsOffers();
  return lastReply_ < Large && !leavesIt;
}

bool CRequestQueue::Take(std::vector<SItem>& batch) {
  if (itemsCount_.load(std::memory_order_relaxed) == 0) {
    SendHeld();
  }
  if (ShallSpin()) {
    SpinForWork();
  }
  std::unique_lock guard(lock_);
  while (lent_ || (items_.empty() && !continueParked_)) {
    if (stopping_ && !lent_) {
      return false;
    }
    Wait(guard);
  }
  batch.swap(items_);
  itemsCount_.store(0, std::memory_order_relaxed);
  if (batch.size() > 1 && port_ != nullptr) {
    port_->RefuseOffers();
  }
  return true;
}

void CRequestQueue::Wait(std::unique_lock<std::mutex>& guard) {
  sleeping_ = true;
  if (!looks_) {
    notEmpty_.wait(guard);
    sleeping_ = false;
    return;
  }
  const std::uint64_t before = lentRequests_;
  const bool told = notEmpty_.wait_for(guard, LookPeriod) == std::cv_status::no_timeout;
  sleeping_ = false;
  if (told) {
    return;
  }
  if (before != lentRequests_) {
    looksInVain_ = 0;
  } else if (lent_) {
    guard.unlock();
    port_->StandIn(*this);
    guard.lock();
  } else if (++looksInVain_ >= LooksInVain) {
    looks_ = false;
    looksInVain_ = 0;
  }
}

void CRequestQueue::Work() noexcept {
  const platform::meanwhile_t meanwhile([this] {
    hasAsked_ = true;
    SendHeld();
  });
  std::vector<SItem> batch;
  while (Take(batch)) {
    // What arrived together may be served as if at one moment: folders on the way to its files are looked up once.
    const platform::lookup_scope_t scope;
    if (continueParked_.exchange(false)) {
      RunParked();
    }
    for (std::size_t i = 0; i < batch.size(); ++i) {
      leftInBatch_ = batch.size() - i - 1;
      const bool isFollowed = leftInBatch_ != 0 && batch[i + 1].sender->Client() == batch[i].sender->Client();
      Process(batch[i], isFollowed ? reply_t::Hold : reply_t::HoldIfAsked);
      batch[i] = SItem();
    }
    batch.clear();
  }
  RunOutParked();
}

void CRequestQueue::Process(SItem& item, reply_t reply) noexcept {
  try {
    if (Park(item)) {
      return;
    }
  } catch (const std::exception& failure) {
    LogFailure(*item.sender, failure.what());
    item.sender->Close();
    return;
  }
  Answer(item, reply);
}

bool CRequestQueue::Park(SItem& item) {
  const void* const client = item.sender->Client();
  auto waiting = parked_.empty() ? parked_.end() : parked_.find(client);
  if (waiting == parked_.end()) {
    if (item.sender->MayAnswer()) {
      return false;
    }
    waiting = parked_.try_emplace(client).first;
  }
  waiting->second.push_back(std::move(item));
  return true;
}

void CRequestQueue::RunParked() noexcept {
  for (auto waiting = parked_.begin(); waiting != parked_.end();) {
    std::deque<SItem>& items = waiting->second;
    while (!items.empty() && items.front().sender->MayAnswer()) {
      Answer(items.front(), reply_t::Send);
      items.pop_front();
    }
    waiting = items.empty() ? parked_.erase(waiting) : std::next(waiting);
  }
}

void CRequestQueue::RunOutParked() noexcept {
  for (auto& [client, items] : parked_) {
    for (; !items.empty(); items.pop_front()) {
      Answer(items.front(), reply_t::Drop);
    }
  }
  parked_.clear();
}

void CRequestQueue::Answer(SItem& item, reply_t reply) noexcept {
  hasAsked_ = false;
  lastRequest_ = item.record->size() + (item.rest == nullptr ? 0 : item.rest->Held());
  lastReply_ = 0;
  try {
    CXDRReader reader(std::move(item.record), std::move(item.rest));
    CXDRWriter writer;
    if (item.sender->TakesPipes()) {
      writer.TakePipes();
    }
    handler_(item.sender->IsFsAccessAllowed(), item.sender->GetPeerAddress(), reader, writer);
    lastReply_ = writer.Used();
    item.sender->DataMayStay(reader.WantedRest());
    Reply(item, writer, reply);
    return;
  } catch (const std::exception& failure) {
    LogFailure(*item.sender, failure.what());
  } catch (...) {
    LogFailure(*item.sender, "unknown");
  }
  SendHeld();
  item.sender->Close();
}

void CRequestQueue::Reply(SItem& item, CXDRWriter& writer, reply_t reply) {
  if (reply == reply_t::Drop) {
    return;
  }
  if (heldBy_ != nullptr && heldBy_->Client() != item.sender->Client()) {
    SendHeld();
  }
  const bool hold = reply == reply_t::Hold || (reply == reply_t::HoldIfAsked && hasAsked_ && AnotherWaits());
  // At the end nobody is left to watch how long it is held.
  if (hold && !stopping_ && AddToHeld(writer.Used())) {
    heldBy_ = item.sender;
    item.sender->Hold(writer, std::move(item.extra));
    return;
  }
  heldBy_.reset();
  held_ = 0;
  item.sender->Send(writer, std::move(item.extra));
}

bool CRequestQueue::AnotherWaits() const noexcept {
  return leftInBatch_ != 0 || itemsCount_.load(std::memory_order_relaxed) != 0;
}

bool CRequestQueue::AddToHeld(std::size_t size) noexcept {
  const auto now = clock_t::now();
  if (held_ == 0) {
    heldSince_ = now;
    heldBytes_ = 0;
  }
  heldBytes_ += size;
  ++held_;
  const bool isInTime = held_ < FewHeld || now - heldSince_ < MaxHeldTime;
  return hasAsked_ || (held_ < MaxHeld && heldBytes_ < MaxHeldBytes && isInTime);
}

void CRequestQueue::SendHeld() noexcept {
  held_ = 0;
  const auto sender = std::move(heldBy_);
  if (sender == nullptr) {
    return;
  }
  try {
    sender->SendHeld();
  } catch (const std::exception& failure) {
    LogFailure(*sender, failure.what());
    sender->Close();
  }
}

}  // namespace impl
