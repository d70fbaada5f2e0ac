#include "transports/async/request_queue.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <span>
#include <thread>
#include <utility>

#include "foundation/log.h"
#include "foundation/thread.h"
#include "platform/futex.h"
#include "platform/lookup_scope.h"
#include "platform/meanwhile.h"

namespace impl {
namespace {

/// A reply of so many bytes moves data.
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

CRequestQueue::CRequestQueue(std::string name, rpc_handler_t handler, boost::shared_ptr<synch::completion_port_t> port,
                             rpc_foresight_t foresight)
    : name_(std::move(name)), handler_(std::move(handler)), foresight_(std::move(foresight)), port_(std::move(port)) {
  thread_ = std::make_unique<synch::thread_t>("Request queue " + name_, [this] { Work(); });
}

CRequestQueue::~CRequestQueue() {
  Stop();
}

void CRequestQueue::Post(boost::intrusive_ptr<CResponseSender> sender, boost::shared_ptr<io::byte_buffer_t> record,
                         completion_ptr extra, boost::shared_ptr<platform::kernel_pipe_t> rest) {
  bool wake = false;
  bool look = false;
  {
    const std::lock_guard guard(lock_);
    if (stopping_) {
      return;
    }
    items_.push_back({std::move(sender), std::move(record), std::move(extra), std::move(rest)});
    itemsCount_.store(items_.size(), std::memory_order_relaxed);
    CountPostLocked();
    if (sleeping_ && !lent_ && !MayLendLocked()) {
      sleeping_ = false;
      wake = true;
    }
    look = !offered_ && items_.size() == 1;
  }
  if (wake) {
    notEmpty_.notify_one();
  }
  if (look && port_ != nullptr) {
    port_->LookForMore();
  }
}

void CRequestQueue::CountPostLocked() noexcept {
  const bool isAlone = items_.size() == 1 && !lent_ && !isWorking_.load(std::memory_order_relaxed);
  crowd_.Tell(isAlone);
}

bool CRequestQueue::LeavesNext() const noexcept {
  return lastReply_ >= Large && !hasAsked_ && crowd_.IsCrowded();
}

bool CRequestQueue::MayLendLocked() noexcept {
  if (offered_) {
    return items_.size() <= MostLent && LeavesNext();
  }
  // While the worker sleeps, nobody changes what is known of the last request.
  offered_ = port_ != nullptr && items_.size() == 1 && LeavesNext() && port_->OfferWork(*this);
  return offered_;
}

void CRequestQueue::RunLent() noexcept {
  std::vector<SItem> batch;
  bool wake = false;
  {
    const std::lock_guard guard(lock_);
    offered_ = false;
    if (!sleeping_ || items_.empty()) {
      // The worker has them, or is about to.
      return;
    }
    batch.swap(items_);
    itemsCount_.store(0, std::memory_order_relaxed);
    lent_ = true;
    ++lentRequests_;
    wake = !std::exchange(looks_, true);
  }
  if (wake) {
    notEmpty_.notify_one();
  }
  RunBatch(batch);
  SendHeld();
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
    offered_ = false;
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

void CRequestQueue::LookForWork() noexcept {
  static const bool useful = platform::AvailableProcessors() > 1;
  const auto isThere = [this] {
    return itemsCount_.load(std::memory_order_relaxed) != 0 || continueParked_.load(std::memory_order_relaxed) ||
           stopping_.load(std::memory_order_relaxed);
  };
  bool found = isThere();
  if (found || !useful || !lookGauge_.Pays()) {
    return;
  }
  const auto end = clock_t::now() + synch::completion_port_t::LookTime;
  while (!found && clock_t::now() < end) {
    std::this_thread::yield();
    found = isThere();
  }
  lookGauge_.Tell(found);
}

bool CRequestQueue::ShallLook() const noexcept {
  // The completion thread is lent only while the worker sleeps.
  return !(LeavesNext() && port_ != nullptr);
}

bool CRequestQueue::Take(std::vector<SItem>& batch) {
  if (itemsCount_.load(std::memory_order_relaxed) == 0) {
    SendHeld();
  }
  isWorking_.store(false, std::memory_order_relaxed);
  if (ShallLook()) {
    LookForWork();
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
  isWorking_.store(true, std::memory_order_relaxed);
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
  std::vector<SItem> batch;
  while (Take(batch)) {
    RunBatch(batch);
  }
  RunOutParked();
}

void CRequestQueue::RunBatch(std::vector<SItem>& batch) noexcept {
  const platform::meanwhile_t meanwhile([this] {
    hasAsked_ = true;
    SendHeld();
  });
  // What arrived together may be served as if at one moment: folders on the way to its files are looked up once.
  const platform::lookup_scope_t scope;
  if (continueParked_.exchange(false)) {
    RunParked();
  }
  for (std::size_t i = 0; i < batch.size(); ++i) {
    if (i % MostForeseen == 0) {
      Foresee(batch, i);
    }
    leftInBatch_ = batch.size() - i - 1;
    const bool isFollowed = leftInBatch_ != 0 && batch[i + 1].sender->Client() == batch[i].sender->Client();
    Process(batch[i], isFollowed ? reply_t::Hold : reply_t::HoldIfAsked);
    batch[i] = SItem();
  }
  batch.clear();
}

void CRequestQueue::Foresee(const std::vector<SItem>& batch, std::size_t from) const noexcept {
  if (!foresight_ || batch.size() - from < FewestForeseen) {
    return;
  }
  std::array<io::byte_buffer_t*, MostForeseen> records;
  std::size_t count = 0;
  for (std::size_t i = from; i < batch.size() && i < from + MostForeseen; ++i) {
    if (batch[i].sender->IsFsAccessAllowed()) {
      records[count++] = batch[i].record.get();
    }
  }
  try {
    foresight_(std::span(records).first(count));
  } catch (const std::exception&) {
    // A request that cannot be read is told of when it is carried out.
  }
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
