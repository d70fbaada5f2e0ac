#include "kelvo-perflog/event_kinds.h"

#include <algorithm>
#include <cstring>

#include "foundation/perf_events.h"
#include "kelvo-perflog/log_reader.h"

namespace perflog {
namespace {

namespace event = perf::event;

constexpr SEventKind Kinds[] = {
    {event::WriteBegin, "WRITE begin", sizeof(perf::io_begin_t)},
    {event::WriteEnd, "WRITE end", sizeof(perf::io_end_t)},
    {event::ReadBegin, "READ begin", sizeof(perf::io_begin_t)},
    {event::ReadEnd, "READ end", sizeof(perf::io_end_t)},
    {event::SocketConnect, "socket connect", AnySize},
    {event::SocketAccept, "socket accept", AnySize},
    {event::SocketReceive, "socket receive", sizeof(perf::socket_transfer_t)},
    {event::SocketSend, "socket send", sizeof(perf::socket_transfer_t)},
    {event::SocketReceiveFrom, "socket receivefrom", sizeof(perf::socket_transfer_t)},
    {event::SocketSendTo, "socket sendto", sizeof(perf::socket_transfer_t)},
    {event::SocketTotals, "socket totals", sizeof(perf::socket_totals_t)},
    {event::ThreadBusy, "thread busy", sizeof(perf::thread_busy_t)},
};

/// Bytes of an unknown event that are shown.
constexpr std::size_t MaxHexBytes = 64;

template <typename Data>
Data DataOf(const SRecord& record) noexcept {
  Data data{};
  std::memcpy(&data, record.data.data(), std::min(sizeof(data), record.data.size()));
  return data;
}

/// Nothing that comes from the file may steer a terminal.
std::string Printable(const std::string& bytes) {
  std::string text = bytes;
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '?');
  return text;
}

std::string Hexadecimal(const std::string& bytes) {
  constexpr char Digits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes.substr(0, MaxHexBytes)) {
    text += Digits[static_cast<unsigned char>(byte) >> 4];
    text += Digits[static_cast<unsigned char>(byte) & 15];
  }
  return bytes.size() > MaxHexBytes ? text + "..." : text;
}

}  // namespace

std::span<const SEventKind> EventKinds() noexcept {
  return Kinds;
}

const SEventKind* FindEventKind(std::uint32_t code) noexcept {
  for (const SEventKind& kind : Kinds) {
    if (kind.code == code)
      return &kind;
  }
  return nullptr;
}

std::string EventName(std::uint32_t code) {
  const SEventKind* const kind = FindEventKind(code);
  return kind != nullptr ? kind->name : "event " + std::to_string(code);
}

SDetails ReadDetails(const SRecord& record) {
  SDetails details;
  switch (record.header.eventType) {
    case event::WriteBegin:
    case event::ReadBegin: {
      const auto data = DataOf<perf::io_begin_t>(record);
      details.fid = data.fid;
      details.offset = data.offset;
      details.bytes = data.count;
      break;
    }
    case event::WriteEnd:
    case event::ReadEnd: {
      const auto data = DataOf<perf::io_end_t>(record);
      details.fid = data.fid;
      details.offset = data.offset;
      details.success = data.success != 0;
      break;
    }
    case event::SocketReceive:
    case event::SocketSend:
    case event::SocketReceiveFrom:
    case event::SocketSendTo: {
      const auto data = DataOf<perf::socket_transfer_t>(record);
      details.bytes = data.bytes;
      details.nanoseconds = data.nanoseconds;
      details.success = data.success != 0;
      break;
    }
    case event::SocketTotals: {
      const auto data = DataOf<perf::socket_totals_t>(record);
      details.calls = data.calls;
      details.bytes = data.bytes;
      break;
    }
    case event::ThreadBusy: {
      const auto data = DataOf<perf::thread_busy_t>(record);
      details.nanoseconds = data.periodNanoseconds;
      details.permille = data.busyPermille;
      break;
    }
    case event::SocketConnect:
    case event::SocketAccept:
      details.text = Printable(record.data);
      break;
    default:
      details.text = Hexadecimal(record.data);
  }
  return details;
}

}  // namespace perflog
