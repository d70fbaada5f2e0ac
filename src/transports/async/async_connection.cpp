#include "transports/async/async_connection.h"

#include <netdb.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "config/address_checker.h"
#include "foundation/exc.h"
#include "foundation/log.h"
#include "transports/async/tcp_response_sender.h"

namespace impl {
namespace {

constexpr std::size_t MaxPeerAddress = 128;

std::string NumericName(const sockaddr* peer, socklen_t length) {
  std::array<char, 1026> host{};
  std::array<char, 33> service{};
  if (::getnameinfo(peer, length, host.data(), host.size(), service.data(), service.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return ":";
  }
  return std::string(host.data()) + ":" + service.data();
}

}  // namespace

CAsyncConnection::CAsyncConnection() : CTcpStream(SUnconnected{}) {}

CAsyncConnection::~CAsyncConnection() = default;

void CAsyncConnection::AdoptAccepted(int handle) noexcept {
  const int on = 1;
  // Replies leave whole: waiting for more to fill a packet would only delay them.
  ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  // A peer that lost its power never closes: without this its connection would stay for ever.
  ::setsockopt(handle, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  Adopt(handle);
}

void CAsyncConnection::Start(const sockaddr* peer, socklen_t peerLength, boost::shared_ptr<CRequestQueue> queue,
                             IAddressChecker* addressChecker) {
  logging::quiet_log_scope_t scope(g_nfs_log, "Initializing incoming TCP connection.");
  fsAccessAllowed_ = addressChecker == nullptr || addressChecker->IsAllowed(peer, peerLength);
  clientName_ = NumericName(peer, peerLength);
  g_nfs_log.Info("Connection accepted from \"%1\". Target queue \"%2\".", clientName_, queue->Name());
  if (!fsAccessAllowed_) {
    g_nfs_log.Info("Access to FS denied for %1", clientName_);
  }
  if (peer->sa_family != AF_INET) {
    g_nfs_log.Error("Client %1: non IPv4 addresses is not supported", clientName_);
    scope.Success();
    return;
  }
  if (peerLength > MaxPeerAddress) {
    g_nfs_log.Warning("Peer address is too large");
  } else {
    std::memcpy(&peerAddress_, peer, std::min<std::size_t>(peerLength, sizeof(peerAddress_)));
  }
  queue_ = std::move(queue);
  staging_.reset(new std::uint8_t[StagingSize]);
  StartReceive(true);
  scope.Success();
}

}  // namespace impl
