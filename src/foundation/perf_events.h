// The events of the performance log: their codes, and what their data holds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace perf {

/// Codes are part of the file format. Data is packed, in host byte order; docs/performance-log.md tells it for readers.
namespace event {
inline constexpr std::uint32_t WriteBegin = 11;  ///< Of an NFS WRITE: io_begin_t.
inline constexpr std::uint32_t WriteEnd = 12;    ///< io_end_t.
inline constexpr std::uint32_t ReadBegin = 21;   ///< Of an NFS READ: io_begin_t.
inline constexpr std::uint32_t ReadEnd = 22;     ///< io_end_t.

inline constexpr std::uint32_t SocketConnect = 31;  ///< Text: "remote: " and the address.
inline constexpr std::uint32_t SocketAccept = 32;   ///< Text: "remote: " and the address.
inline constexpr std::uint32_t SocketReceive = 33;  ///< socket_transfer_t, as the three that follow.
inline constexpr std::uint32_t SocketSend = 34;
inline constexpr std::uint32_t SocketReceiveFrom = 35;
inline constexpr std::uint32_t SocketSendTo = 36;
inline constexpr std::uint32_t SocketTotals = 37;  ///< socket_totals_t, once, before the log is closed.

inline constexpr std::uint32_t ThreadBusy = 41;  ///< thread_busy_t.
}  // namespace event

#pragma pack(push, 1)

struct record_header_t {
  std::int64_t timestamp;  ///< Nanoseconds on the monotonic clock.
  std::uint32_t eventType;
  std::uint32_t dataSize;  ///< Bytes that follow the header.
  std::uint32_t threadId;  ///< The kernel's.
};
static_assert(sizeof(record_header_t) == 20);

struct io_begin_t {
  std::uint64_t fid;
  std::uint64_t offset;
  std::uint32_t count;  ///< Bytes asked for.
};
static_assert(sizeof(io_begin_t) == 20);

struct io_end_t {
  std::uint64_t fid;
  std::uint64_t offset;
  std::uint8_t success;
};
static_assert(sizeof(io_end_t) == 17);

struct socket_transfer_t {
  std::uint64_t bytes;        ///< Asked for; those that came or went where the call does not insist on all.
  std::uint64_t nanoseconds;  ///< That the call took.
  std::uint8_t success;
};
static_assert(sizeof(socket_transfer_t) == 17);

struct socket_totals_t {
  std::uint64_t calls;
  std::uint64_t bytes;
};
static_assert(sizeof(socket_totals_t) == 16);

struct thread_busy_t {
  std::uint64_t periodNanoseconds;
  std::uint32_t busyPermille;  ///< 0 to 1000.
};
static_assert(sizeof(thread_busy_t) == 12);

#pragma pack(pop)

}  // namespace perf
