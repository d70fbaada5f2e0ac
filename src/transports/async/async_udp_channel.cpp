#include "transports/async/async_udp_channel.h"

#include <boost/make_shared.hpp>
#include <cstring>
#include <exception>
#include <utility>

#include "foundation/log.h"

namespace impl {
namespace {

/// The room of the record mark, which datagrams do not have.
constexpr std::size_t RecordMarkSize = 4;

}  // namespace

CAsyncUdpChannel::CAsyncUdpChannel(const win::SPortBinding& binding, boost::shared_ptr<CRequestQueue> queue)
    : CUdpSocket(static_cast<win::IUdpEventsHandler&>(*this), binding), queue_(std::move(queue)) {}

void CAsyncUdpChannel::Start() {
  Receive(receiveBuffer_.data(), receiveBuffer_.size());
}

void CAsyncUdpChannel::OnDatagramReceived(const win::SDatagramAddress& source, std::size_t size) {
  logging::quiet_log_scope_t scope(g_nfs_log, "Processing incoming UDP packet.");
  if (requests_ < MaxRequests && requestBytes_ < MaxRequestBytes) {
    auto record = boost::make_shared<io::byte_buffer_t>(receiveBuffer_.begin(),
                                                        receiveBuffer_.begin() + static_cast<std::ptrdiff_t>(size));
    queue_->Post(new CAsyncUdpSender(this, source, size), std::move(record));
  }
  scope.Success();
}

void CAsyncUdpChannel::SendReply(const win::SDatagramAddress& target, boost::shared_ptr<io::byte_buffer_t> reply) {
  {
    const std::lock_guard guard(sendLock_);
    sendQueue_.push_back({std::move(reply), target});
    if (sendQueue_.size() > 1) {
      return;
    }
  }
  SendFromHead();
}

void CAsyncUdpChannel::OnDatagramSent() {
  logging::quiet_log_scope_t scope(g_nfs_log, "Processing UDP delivery confirmation.");
  if (DropHead()) {
    SendFromHead();
  }
  scope.Success();
}

bool CAsyncUdpChannel::DropHead() {
  const std::lock_guard guard(sendLock_);
  sendQueue_.pop_front();
  return !sendQueue_.empty();
}

void CAsyncUdpChannel::SendFromHead() {
  std::exception_ptr failure;
  bool more = true;
  while (more) {
    const SDatagram* head = nullptr;
    {
      const std::lock_guard guard(sendLock_);
      head = &sendQueue_.front();
    }
    try {
      // The head stays until it is out: others only add behind it.
      if (!Send(head->target, head->data->data() + RecordMarkSize, head->data->size() - RecordMarkSize)) {
        return;
      }
    } catch (const std::exception&) {
      // One datagram that cannot leave costs itself alone: those behind it may belong to others.
      failure = std::current_exception();
    }
    more = DropHead();
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

CAsyncUdpSender::CAsyncUdpSender(boost::intrusive_ptr<CAsyncUdpChannel> channel, const win::SDatagramAddress& source,
                                 std::size_t requestSize)
    : channel_(std::move(channel)), source_(source), requestSize_(requestSize) {
  std::memcpy(&peer_, &source_.address, sizeof(peer_));
  ++channel_->requests_;
  channel_->requestBytes_ += requestSize_;
}

CAsyncUdpSender::~CAsyncUdpSender() {
  --channel_->requests_;
  channel_->requestBytes_ -= requestSize_;
}

void CAsyncUdpSender::Send(CXDRWriter& writer, completion_ptr) {
  logging::quiet_log_scope_t scope(g_nfs_log, "Sending  UDP datagram.");
  auto reply = boost::make_shared<io::byte_buffer_t>();
  writer.Finish(*reply, true);
  channel_->SendReply(source_, std::move(reply));
  scope.Success();
}

}  // namespace impl
