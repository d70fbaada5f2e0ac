#include "management/dcerpc/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <limits>

#include "foundation/log.h"
#include "platform/clock.h"

namespace dcerpc {
namespace {

constexpr std::uint64_t Never = std::numeric_limits<std::uint64_t>::max();

std::uint64_t Now() {
  return platform::SystemClock().MonotonicMilliseconds();
}

/// For poll: -1 without a deadline, never more than what is left.
int Left(std::uint64_t deadline) {
  if (deadline == Never)
    return -1;
  const std::uint64_t now = Now();
  return now >= deadline ? 0 : static_cast<int>(std::min<std::uint64_t>(deadline - now, INT_MAX));
}

enum class wait_result_t { Ready, Late, Stopped };

/// Waits for the socket; `stop` may be -1.
wait_result_t WaitFor(int socket, short events, int stop, std::uint64_t deadline) {
  for (;;) {
    std::array<pollfd, 2> entries{{{socket, events, 0}, {stop, POLLIN, 0}}};
    const int left = Left(deadline);
    const int ready = ::poll(entries.data(), entries.size(), left);
    if (ready < 0)
      continue;  // A signal, or no memory for the moment.
    if (entries[1].revents != 0)
      return wait_result_t::Stopped;
    if (entries[0].revents != 0)
      return wait_result_t::Ready;
    if (left == 0)
      return wait_result_t::Late;
  }
}

/// The end of a connection, whose reason is of no interest above.
[[noreturn]] void Leave() {
  throw exc::term_exc_t();
}

}  // namespace

CConnection::CConnection(platform::descriptor_t socket, int stop, const SConnectionLimits& limits,
                         const SAssociationSettings& settings, SCaller caller)
    : socket_(std::move(socket)),
      stop_(stop),
      limits_(limits),
      association_(settings, std::move(caller), [this](bytes_view_t pdu) { Send(pdu); }) {}

void CConnection::Serve() {
  try {
    ServePdus();
  } catch (const exc::term_exc_t&) {
    // The peer, a limit or the stop ended it.
  }
}

void CConnection::ServePdus() {
  bytes_t pdu;
  do {
    if (!ReceivePdu(pdu))
      return;
  } while (association_.Receive(pdu));
  Linger();
}

/// False when what came is no PDU.
bool CConnection::ReceivePdu(bytes_t& pdu) {
  pdu.clear();
  ReceiveUpTo(pdu, 1, FirstByteDeadline());
  const std::uint64_t deadline = Now() + limits_.pdu;
  ReceiveUpTo(pdu, HeaderSize, deadline);
  try {
    ReceiveUpTo(pdu, DecodeHeader(pdu).fragmentLength, deadline);
  } catch (const exc::runtime_exc_t& failure) {
    g_rpc_log.Warning(
        exc::FormatText("The connection of the management client [%1] is closed.", association_.Caller().origin),
        failure);
    return false;
  }
  return true;
}

std::uint64_t CConnection::FirstByteDeadline() const {
  if (!association_.IsBound() || association_.IsInRequest())
    return Now() + limits_.pdu;
  return association_.Caller().authenticated ? Never : Now() + limits_.idle;
}

/// Fills the PDU up to a size. Its memory grows as bytes arrive.
void CConnection::ReceiveUpTo(bytes_t& pdu, std::size_t size, std::uint64_t deadline) {
  constexpr std::size_t Step = 8192;
  while (pdu.size() < size) {
    const std::size_t have = pdu.size();
    pdu.resize(std::min(size, have + Step));
    pdu.resize(have + ReceiveSome(std::span(pdu).subspan(have), deadline));
  }
}

std::size_t CConnection::ReceiveSome(std::span<std::uint8_t> room, std::uint64_t deadline) {
  for (;;) {
    // First, so that a peer that never pauses does not outlive the stop.
    if (WaitFor(socket_.Get(), POLLIN, stop_, deadline) != wait_result_t::Ready)
      Leave();
    const ssize_t got = ::recv(socket_.Get(), room.data(), room.size(), MSG_DONTWAIT);
    if (got > 0)
      return static_cast<std::size_t>(got);
    if (got == 0 || (errno != EAGAIN && errno != EINTR))
      Leave();
  }
}

void CConnection::Send(bytes_view_t pdu) {
  while (!pdu.empty()) {
    const ssize_t sent = ::send(socket_.Get(), pdu.data(), pdu.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      pdu = pdu.subspan(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      WaitForRoom();
    } else if (errno != EINTR) {
      Leave();
    }
  }
}

/// A call that was made is answered, also while the endpoint stops; but the peer that does not take the answer holds
/// the stop up no longer than the limit.
void CConnection::WaitForRoom() {
  if (!stopDeadline_) {
    const wait_result_t result = WaitFor(socket_.Get(), POLLOUT, stop_, Now() + limits_.send);
    if (result == wait_result_t::Ready)
      return;
    if (result == wait_result_t::Late)
      Leave();
    stopDeadline_ = Now() + limits_.end;
  }
  if (WaitFor(socket_.Get(), POLLOUT, -1, *stopDeadline_) != wait_result_t::Ready)
    Leave();
}

/// Closing a socket with bytes in it that were not read takes back what the peer has not read: so read on, until the
/// peer has seen the end.
void CConnection::Linger() {
  constexpr std::size_t DropSize = 4096;
  ::shutdown(socket_.Get(), SHUT_WR);
  std::array<std::uint8_t, DropSize> dropped{};
  const std::uint64_t deadline = Now() + limits_.end;
  while (Now() < deadline)
    ReceiveSome(dropped, deadline);
}

}  // namespace dcerpc
